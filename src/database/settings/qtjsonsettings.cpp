#include <database/settings/qtjsonsettings.h>

#include <database/core/log.h>

#include <QDataStream>
#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QFont>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QJsonValue>
#include <QMutex>
#include <QPoint>
#include <QRect>
#include <QSaveFile>
#include <QSize>
#include <QtEndian>

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <vector>

QSettings::Format QtJsonSettings::JsonFormat = QSettings::InvalidFormat;

namespace {

// Member-name markers (see the header, rules 2, 8 and 9).
const QString MapPrefix = QStringLiteral("@Map_");
const QString HashPrefix = QStringLiteral("@Hash_");
const QString ListPrefix = QStringLiteral("@List_");
constexpr QChar Marker = QLatin1Char('@');

// Segments and strings that begin with the marker get a second one in front,
// so that nothing the user stores can be taken for a marker or a tagged value.
QString escaped(const QString &text)
{
    return text.startsWith(Marker) ? Marker + text : text;
}

QString unescaped(const QString &text)
{
    return text.startsWith(QLatin1String("@@")) ? text.mid(1) : text;
}

// --- tagged values ----------------------------------------------------------------

constexpr QDataStream::Version StreamVersion = QDataStream::Qt_5_15;

// Types kept as "@Variant(base64)" besides the application's own streamable
// types: their stream form is small and bounded by the text that holds it
// (a font's family list is checked before Qt reads it; types such as images
// or polygons could make a short text allocate gigabytes, so they are
// refused).
bool streamedType(int type)
{
    switch (type) {
    case QMetaType::QColor:
    case QMetaType::QKeySequence:
    case QMetaType::QFont:
    case QMetaType::QDate:
    case QMetaType::QTime:
    case QMetaType::QDateTime:
    case QMetaType::QRectF:
    case QMetaType::QSizeF:
    case QMetaType::QPointF:
    case QMetaType::QLine:
    case QMetaType::QLineF:
    case QMetaType::QUrl:
    case QMetaType::QUuid:
    case QMetaType::QChar:
        return true;
    default:
        return type >= QMetaType::User;
    }
}

QString tagged(const char *tag, const QString &payload)
{
    return Marker + QLatin1String(tag) + QLatin1Char('(') + payload + QLatin1Char(')');
}

// The "@Variant(...)" payload: QVariant's stream form in base64, or an empty
// string when the type has no stream operators.
QString streamed(const QVariant &value)
{
    QByteArray bytes;
    QDataStream out(&bytes, QIODevice::WriteOnly);
    out.setVersion(StreamVersion);
    QDataStream probe; // no device: only asks whether the type can be saved
    if (!QMetaType::save(probe, value.userType(), value.constData()))
        return QString();
    out << value;
    return out.status() == QDataStream::Ok ? QString::fromLatin1(bytes.toBase64()) : QString();
}

// Moves 'at' past a QString of the stream form when the bytes hold all of it.
bool skipStreamedString(const QByteArray &bytes, int &at)
{
    if (bytes.size() - at < 4)
        return false;
    const quint32 length = qFromBigEndian<quint32>(bytes.constData() + at);
    at += 4;
    if (length == 0xffffffffu) // a null string
        return true;
    if (length % 2 != 0 || length > quint32(bytes.size() - at))
        return false;
    at += int(length);
    return true;
}

// QtGui 5.15 reads a font's family list with QList::reserve(count), the count
// taken from the stream unchecked, so one damaged count asks for gigabytes
// before any family is read. A font streams as its family, its style name,
// fixed-size fields and then the family list; the list must lie inside the
// bytes before Qt may read it. The size of the fixed fields is learned once
// from a font with no names at all.
bool fontStreamIsBounded(const QByteArray &bytes, int at)
{
    static const int fixedBytes = [] {
        QFont font;
        font.setFamily(QString());
        font.setStyleName(QString());
        font.setFamilies(QStringList());
        QByteArray probe;
        QDataStream out(&probe, QIODevice::WriteOnly);
        out.setVersion(StreamVersion);
        out << font;
        return probe.size() - 3 * 4; // two null strings and an empty list
    }();
    if (!skipStreamedString(bytes, at) || !skipStreamedString(bytes, at)
        || bytes.size() - at < fixedBytes + 4)
        return false;
    at += fixedBytes;
    const quint32 families = qFromBigEndian<quint32>(bytes.constData() + at);
    at += 4;
    for (quint32 i = 0; i < families; ++i) {
        if (!skipStreamedString(bytes, at))
            return false;
    }
    return at == bytes.size();
}

QVariant unstreamed(const QStringRef &payload)
{
    const auto decoded = QByteArray::fromBase64Encoding(payload.toLatin1(),
                                                        QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded)
        return QVariant();
    // Look at the type before letting QVariant allocate anything for it.
    QDataStream peek(decoded.decoded);
    peek.setVersion(StreamVersion);
    quint32 type = 0;
    qint8 isNull = 0;
    peek >> type >> isNull;
    if (type == QMetaType::User) {
        QByteArray name;
        peek >> name;
        type = quint32(QMetaType::type(name.constData()));
    }
    if (peek.status() != QDataStream::Ok || !streamedType(int(type))
        || !QMetaType::isRegistered(int(type)))
        return QVariant();
    if (type == QMetaType::QFont
        && !fontStreamIsBounded(decoded.decoded, int(peek.device()->pos())))
        return QVariant();
    QDataStream in(decoded.decoded);
    in.setVersion(StreamVersion);
    QVariant value;
    in >> value;
    if (in.status() != QDataStream::Ok || !in.atEnd() || value.userType() != int(type))
        return QVariant();
    return value;
}

bool parseInts(const QStringRef &payload, int *numbers, int count)
{
    const QVector<QStringRef> parts = payload.split(QLatin1Char(' '));
    if (parts.size() != count)
        return false;
    for (int i = 0; i < count; ++i) {
        bool ok = false;
        numbers[i] = parts.at(i).toInt(&ok);
        if (!ok)
            return false;
    }
    return true;
}

// A JSON string back to its value: "@@text" is the text "@text", a tag that
// parses is its value, and anything else (including a tag this process cannot
// decode) is the text itself, so nothing read is ever dropped.
QVariant decodedString(const QString &text)
{
    if (!text.startsWith(Marker))
        return text;
    if (text.startsWith(QLatin1String("@@")))
        return text.mid(1);
    const int open = text.indexOf(QLatin1Char('('));
    if (open < 0 || !text.endsWith(QLatin1Char(')')))
        return text;
    const QStringRef tag = text.midRef(1, open - 1);
    const QStringRef payload = text.midRef(open + 1, text.size() - open - 2);
    int n[4];
    if (tag == QLatin1String("ByteArray")) {
        const auto bytes = QByteArray::fromBase64Encoding(payload.toLatin1(),
                                                          QByteArray::AbortOnBase64DecodingErrors);
        if (bytes)
            return bytes.decoded;
    } else if (tag == QLatin1String("Rect")) {
        if (parseInts(payload, n, 4))
            return QRect(n[0], n[1], n[2], n[3]);
    } else if (tag == QLatin1String("Size")) {
        if (parseInts(payload, n, 2))
            return QSize(n[0], n[1]);
    } else if (tag == QLatin1String("Point")) {
        if (parseInts(payload, n, 2))
            return QPoint(n[0], n[1]);
    } else if (tag == QLatin1String("DateTime")) {
        if (payload.isEmpty())
            return QDateTime();
        const QDateTime dateTime = QDateTime::fromString(payload.toString(), Qt::ISODateWithMs);
        if (dateTime.isValid())
            return dateTime;
    } else if (tag == QLatin1String("Double")) {
        if (payload == QLatin1String("nan"))
            return std::numeric_limits<double>::quiet_NaN();
        if (payload == QLatin1String("inf"))
            return std::numeric_limits<double>::infinity();
        if (payload == QLatin1String("-inf"))
            return -std::numeric_limits<double>::infinity();
    } else if (tag == QLatin1String("Variant")) {
        const QVariant value = unstreamed(payload);
        if (value.isValid())
            return value;
    }
    return text;
}

// --- reading --------------------------------------------------------------------

// Reads the whole device, but never more than limit + 1 bytes; false when the
// device holds more than limit bytes.
bool readAtMost(QIODevice &device, qint64 limit, QByteArray &data)
{
    if (!device.isSequential()) {
        if (device.size() - device.pos() > limit)
            return false;
        data = device.readAll();
        return data.size() <= limit;
    }
    constexpr qint64 chunkSize = 64 * 1024;
    while (data.size() <= limit) {
        const QByteArray chunk = device.read(qMin(chunkSize, limit + 1 - data.size()));
        if (chunk.isEmpty())
            break;
        data += chunk;
    }
    return data.size() <= limit;
}

int lineOfOffset(const QByteArray &data, int offset)
{
    const int end = qBound(0, offset, data.size());
    return 1 + int(std::count(data.constBegin(), data.constBegin() + end, '\n'));
}

// QtCore hands every JSON number over as a double (or a qlonglong when the text
// was an integer that fits); whole numbers go back to the narrowest integer
// type so that a setting written as an int reads back as one.
QVariant numberValue(const QJsonValue &number)
{
    const QVariant parsed = number.toVariant();
    if (parsed.userType() == QMetaType::LongLong) {
        const qlonglong n = parsed.toLongLong();
        if (n >= std::numeric_limits<int>::min() && n <= std::numeric_limits<int>::max())
            return int(n);
        return n;
    }
    const double d = number.toDouble();
    if (!std::isfinite(d) || std::trunc(d) != d)
        return d;
    if (d >= std::numeric_limits<int>::min() && d <= std::numeric_limits<int>::max())
        return int(d);
    if (d >= -9223372036854775808.0 && d < 9223372036854775808.0)
        return qlonglong(d);
    return d;
}

QVariant settingsValue(const QJsonValue &value)
{
    switch (value.type()) {
    case QJsonValue::Bool:
        return value.toBool();
    case QJsonValue::Double:
        return numberValue(value);
    case QJsonValue::String:
        return decodedString(value.toString());
    case QJsonValue::Array: {
        const QJsonArray array = value.toArray();
        QVariantList list;
        list.reserve(array.size());
        bool onlyText = !array.isEmpty();
        for (const QJsonValue &element : array) {
            list.append(settingsValue(element));
            onlyText = onlyText && list.last().userType() == QMetaType::QString;
        }
        if (onlyText) {
            QStringList strings;
            strings.reserve(list.size());
            for (const QVariant &element : qAsConst(list))
                strings.append(element.toString());
            return strings;
        }
        return list;
    }
    case QJsonValue::Object: {
        const QJsonObject object = value.toObject();
        QVariantMap map;
        for (auto it = object.constBegin(); it != object.constEnd(); ++it)
            map.insert(it.key(), settingsValue(it.value()));
        return map;
    }
    case QJsonValue::Null:
    case QJsonValue::Undefined:
        break;
    }
    return QVariant();
}

QString withoutTrailingSlash(const QString &prefix)
{
    return prefix.isEmpty() ? prefix : prefix.left(prefix.size() - 1);
}

void processReadKey(QString &prefix, QtJsonSettings::SettingsMap &map, const QJsonValue &value);

// Walks the members of a group. The prefix is empty or ends with "/"; it is
// restored before returning, so one string serves the whole walk.
void processReadObject(QString &prefix, QtJsonSettings::SettingsMap &map, const QJsonObject &object)
{
    const int prefixLength = prefix.size();
    for (auto it = object.constBegin(); it != object.constEnd(); ++it) {
        const QString &name = it.key();
        const QJsonValue member = it.value();
        if (name.isEmpty()) {
            // The group's own value; the root has no key to hold one.
            if (!prefix.isEmpty())
                map.insert(withoutTrailingSlash(prefix), settingsValue(member));
            continue;
        }
        if (member.isObject() && name.startsWith(MapPrefix)) {
            map.insert(prefix + unescaped(name.mid(MapPrefix.size())), settingsValue(member));
            continue;
        }
        if (member.isObject() && name.startsWith(HashPrefix)) {
            map.insert(prefix + unescaped(name.mid(HashPrefix.size())),
                       settingsValue(member).toHash());
            continue;
        }
        if (member.isArray() && name.startsWith(ListPrefix)) {
            map.insert(prefix + unescaped(name.mid(ListPrefix.size())), settingsValue(member));
            continue;
        }
        prefix += unescaped(name);
        prefix += QLatin1Char('/');
        processReadKey(prefix, map, member);
        prefix.truncate(prefixLength);
    }
}

void processReadKey(QString &prefix, QtJsonSettings::SettingsMap &map, const QJsonValue &value)
{
    if (value.isObject()) {
        processReadObject(prefix, map, value.toObject());
        return;
    }
    if (value.isArray()) {
        const QJsonArray array = value.toArray();
        if (!array.isEmpty() && array.first().isObject()) {
            const int prefixLength = prefix.size();
            map.insert(prefix + QLatin1String("size"), array.size());
            for (int i = 0; i < array.size(); ++i) {
                prefix += QString::number(i + 1);
                prefix += QLatin1Char('/');
                processReadKey(prefix, map, array.at(i));
                prefix.truncate(prefixLength);
            }
            return;
        }
    }
    map.insert(withoutTrailingSlash(prefix), settingsValue(value));
}

// --- writing --------------------------------------------------------------------

// The JSON tree under construction. Building it in place keeps writing linear
// in the number of keys (rebuilding nested QVariantMaps per key would copy
// every map on the path for each key).
struct WriteNode
{
    enum class Kind { Invalid, Object, Leaf };
    Kind kind = Kind::Invalid;
    std::map<QString, WriteNode> members;
    QVariant leaf;
};

WriteNode leafNode(const QVariant &value)
{
    WriteNode node;
    node.kind = WriteNode::Kind::Leaf;
    node.leaf = value;
    return node;
}

// A node is taken as an object to descend into; a value already there stays
// as the object's own value (member ""), so a key may be a value and a group.
void makeObject(WriteNode &node)
{
    if (node.kind == WriteNode::Kind::Object)
        return;
    WriteNode object;
    object.kind = WriteNode::Kind::Object;
    if (node.kind == WriteNode::Kind::Leaf)
        object.members.emplace(QString(), std::move(node));
    node = std::move(object);
}

// QtCore's JSON values are kept as the plain values they hold.
QVariant plainValue(const QVariant &value)
{
    switch (value.userType()) {
    case QMetaType::QJsonValue:
        return value.toJsonValue().toVariant();
    case QMetaType::QJsonObject:
        return value.toJsonObject().toVariantMap();
    case QMetaType::QJsonArray:
        return value.toJsonArray().toVariantList();
    case QMetaType::QJsonDocument: {
        const QJsonDocument document = value.toJsonDocument();
        return document.isArray() ? QVariant(document.array().toVariantList())
                                  : QVariant(document.object().toVariantMap());
    }
    default:
        return value;
    }
}

bool isObjectLike(const QVariant &value)
{
    const int type = plainValue(value).userType();
    return type == QMetaType::QVariantMap || type == QMetaType::QVariantHash;
}

// The member name of a leaf: map, hash and lists that open with an object get
// a marker, so the reader does not walk them as groups or settings arrays.
QString leafName(const QString &segment, const QVariant &value)
{
    switch (value.userType()) {
    case QMetaType::QVariantMap:
        return MapPrefix + segment;
    case QMetaType::QVariantHash:
        return HashPrefix + segment;
    case QMetaType::QVariantList: {
        const QVariantList list = value.toList();
        if (!list.isEmpty() && isObjectLike(list.first()))
            return ListPrefix + segment;
        break;
    }
    default:
        break;
    }
    return segment;
}

// Inserts one settings key; false when the key alone nests deeper than
// MaxDepth. Empty segments (as in "a//b") are skipped, as QSettings does.
bool processWriteKey(WriteNode &root, const QString &key, const QVariant &anyValue)
{
    const QVariant value = plainValue(anyValue);
    const QVector<QStringRef> segments = key.splitRef(QLatin1Char('/'), Qt::SkipEmptyParts);
    if (segments.isEmpty())
        return true;
    if (segments.size() > QtJsonSettings::MaxDepth)
        return false;
    WriteNode *node = &root;
    for (int i = 0; i + 1 < segments.size(); ++i) {
        makeObject(*node);
        node = &node->members[escaped(segments.at(i).toString())];
    }
    makeObject(*node);
    WriteNode &leaf = node->members[leafName(escaped(segments.last().toString()), value)];
    if (leaf.kind == WriteNode::Kind::Object)
        leaf.members[QString()] = leafNode(value);
    else
        leaf = leafNode(value);
    return true;
}

constexpr qint64 MaxExactJsonInteger = qint64(1) << 53;

// Converts the tree to QtCore's JSON values. Collects the values it cannot
// keep (unknown) and refuses (tooDeep) to nest containers deeper than QtCore's
// parser would read back.
class JsonBuilder
{
public:
    bool tooDeep = false;
    QStringList unknown;
    QString key;

    QJsonValue value(const WriteNode &node, int depth)
    {
        if (node.kind == WriteNode::Kind::Leaf)
            return value(node.leaf, depth);
        if (node.kind == WriteNode::Kind::Invalid || !enter(depth))
            return QJsonValue(QJsonValue::Null);
        QVector<const WriteNode *> elements;
        if (settingsArray(node, elements)) {
            QJsonArray array;
            for (const WriteNode *element : qAsConst(elements))
                array.append(element ? value(*element, depth + 1) : QJsonValue(QJsonValue::Null));
            // A document that is an array must open with an object to be
            // read back at all; otherwise the root stays an object.
            if (depth > 1 || array.first().isObject())
                return array;
        }
        QJsonObject object;
        const int keyLength = key.size();
        for (const auto &member : node.members) {
            key += QLatin1Char('/') + member.first;
            object.insert(member.first, value(member.second, depth + 1));
            key.truncate(keyLength);
        }
        return object;
    }

    QJsonValue value(const QVariant &leaf, int depth)
    {
        switch (leaf.userType()) {
        case QMetaType::UnknownType:
            return QJsonValue(QJsonValue::Null);
        case QMetaType::Bool:
            return leaf.toBool();
        case QMetaType::Int:
        case QMetaType::UInt:
        case QMetaType::Short:
        case QMetaType::UShort:
        case QMetaType::Long:
        case QMetaType::Char:
        case QMetaType::SChar:
        case QMetaType::UChar:
            return QJsonValue(leaf.toLongLong());
        case QMetaType::LongLong:
        case QMetaType::ULong:
        case QMetaType::ULongLong: {
            // Both signs: a ULongLong above 2^63 is still written exactly.
            const bool isUnsigned = leaf.userType() != QMetaType::LongLong;
            const qulonglong u = leaf.toULongLong();
            const qlonglong n = leaf.toLongLong();
            if (isUnsigned ? u > qulonglong(MaxExactJsonInteger)
                           : (n > MaxExactJsonInteger || n < -MaxExactJsonInteger))
                return isUnsigned ? QString::number(u) : QString::number(n);
            return QJsonValue(n);
        }
        case QMetaType::Double:
        case QMetaType::Float: {
            const double d = leaf.toDouble();
            if (std::isnan(d))
                return tagged("Double", QStringLiteral("nan"));
            if (std::isinf(d))
                return tagged("Double", d > 0 ? QStringLiteral("inf") : QStringLiteral("-inf"));
            return d;
        }
        case QMetaType::QString:
            return escaped(leaf.toString());
        case QMetaType::QByteArray:
            return tagged("ByteArray", QString::fromLatin1(leaf.toByteArray().toBase64()));
        case QMetaType::QRect: {
            const QRect r = leaf.toRect();
            return tagged(
                "Rect",
                QStringLiteral("%1 %2 %3 %4").arg(r.x()).arg(r.y()).arg(r.width()).arg(r.height()));
        }
        case QMetaType::QSize: {
            const QSize s = leaf.toSize();
            return tagged("Size", QStringLiteral("%1 %2").arg(s.width()).arg(s.height()));
        }
        case QMetaType::QPoint: {
            const QPoint p = leaf.toPoint();
            return tagged("Point", QStringLiteral("%1 %2").arg(p.x()).arg(p.y()));
        }
        case QMetaType::QDateTime: {
            const QDateTime dateTime = leaf.toDateTime();
            if (!dateTime.isValid())
                return tagged("DateTime", QString());
            // ISO text keeps local time, UTC and fixed offsets; a named time
            // zone (or a year ISO cannot write) needs the stream form.
            const QString text = dateTime.toString(Qt::ISODateWithMs);
            if (dateTime.timeSpec() != Qt::TimeZone && !text.isEmpty()
                && QDateTime::fromString(text, Qt::ISODateWithMs) == dateTime)
                return tagged("DateTime", text);
            break;
        }
        case QMetaType::QVariantMap:
        case QMetaType::QVariantHash: {
            if (!enter(depth))
                return QJsonValue(QJsonValue::Null);
            const QVariantMap map = leaf.toMap();
            QJsonObject object;
            for (auto it = map.constBegin(); it != map.constEnd(); ++it)
                object.insert(it.key(), value(it.value(), depth + 1));
            return object;
        }
        case QMetaType::QVariantList:
        case QMetaType::QStringList: {
            if (!enter(depth))
                return QJsonValue(QJsonValue::Null);
            QJsonArray array;
            for (const QVariant &element : leaf.toList())
                array.append(value(element, depth + 1));
            return array;
        }
        case QMetaType::QJsonValue:
        case QMetaType::QJsonObject:
        case QMetaType::QJsonArray:
        case QMetaType::QJsonDocument:
            return value(plainValue(leaf), depth);
        default:
            break;
        }
        if (streamedType(leaf.userType())) {
            const QString payload = streamed(leaf);
            if (!payload.isEmpty())
                return tagged("Variant", payload);
        }
        unknown << QStringLiteral("%1 (%2)").arg(key.mid(1), QString::fromLatin1(leaf.typeName()));
        return QJsonValue(QJsonValue::Null);
    }

private:
    bool enter(int depth)
    {
        if (depth > QtJsonSettings::MaxDepth)
            tooDeep = true;
        return !tooDeep;
    }

    // A "size" member whose integer value n > 0 turns its group into a JSON
    // array of the group's entries 1..n when exactly one of them is missing
    // (see rule 4 of the header) and the group holds nothing else, so that
    // no member is dropped.
    static bool settingsArray(const WriteNode &node, QVector<const WriteNode *> &elements)
    {
        const auto size = node.members.find(QStringLiteral("size"));
        if (size == node.members.end() || size->second.kind != WriteNode::Kind::Leaf)
            return false;
        bool ok = false;
        const int n = size->second.leaf.toInt(&ok);
        if (!ok || n <= 0 || node.members.size() != std::size_t(n))
            return false;
        elements.fill(nullptr, n);
        int present = 0;
        for (const auto &member : node.members) {
            if (&member.second == &size->second)
                continue;
            const int i = member.first.toInt(&ok);
            if (!ok || i < 1 || i > n || member.first != QString::number(i))
                return false;
            elements[i - 1] = &member.second;
            ++present;
        }
        return present == n - 1;
    }
};

// --- damaged files ----------------------------------------------------------------

QMutex damagedMutex;
QHash<QString, QString> damagedCopies;

// Moves a settings file that failed to read aside, to "<name>.damaged-<local
// time>" (with "-2", "-3"... when that exists), so that the next write cannot
// overwrite it. Returns the new name, or an empty string when it stayed.
QString moveAside(const QString &fileName)
{
    const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss"));
    const QString base = fileName + QStringLiteral(".damaged-") + stamp;
    for (int attempt = 1; attempt < 100; ++attempt) {
        const QString aside
            = attempt == 1 ? base : base + QLatin1Char('-') + QString::number(attempt);
        if (QFileInfo::exists(aside))
            continue;
        if (!QFile::rename(fileName, aside))
            return QString();
        QMutexLocker locker(&damagedMutex);
        damagedCopies.insert(QFileInfo(fileName).absoluteFilePath(), aside);
        return aside;
    }
    return QString();
}

// --- registration -----------------------------------------------------------------

// Registers both formats once. It runs while the library loads (see the static
// below); mapFormat() reaches it too, so the order of static initialisers in
// the library does not matter.
class SettingsInitializer
{
public:
    SettingsInitializer()
    {
        QtJsonSettings::JsonFormat
            = QSettings::registerFormat(QStringLiteral("json"), QtJsonSettings::readJsonFile,
                                        QtJsonSettings::writeJsonFile, Qt::CaseSensitive);
        mapFormat = QSettings::registerFormat(QStringLiteral("map"), readMapSettings,
                                              writeMapSettings, Qt::CaseSensitive);
        if (QtJsonSettings::JsonFormat == QSettings::InvalidFormat
            || mapFormat == QSettings::InvalidFormat)
            qCWarning(QGuiLog) << "QtJsonSettings: QSettings has no free custom format left;"
                                  " the \"json\" or \"map\" settings format is unavailable";
    }

    QSettings::Format mapFormat = QSettings::InvalidFormat;
};

const SettingsInitializer &settingsInitializer()
{
    static const SettingsInitializer initializer;
    return initializer;
}

[[maybe_unused]] const SettingsInitializer &registeredAtLoad = settingsInitializer();

} // namespace

QSettings::Format QtJsonSettings::mapFormat()
{
    return settingsInitializer().mapFormat;
}

QString QtJsonSettings::damagedCopy(const QString &fileName)
{
    QMutexLocker locker(&damagedMutex);
    return damagedCopies.value(QFileInfo(fileName).absoluteFilePath());
}

bool QtJsonSettings::readJsonFile(QIODevice &device, SettingsMap &map)
{
    QByteArray data;
    QJsonParseError error;
    QJsonDocument document;
    QString errorText;
    if (readAtMost(device, MaxFileSize, data)) {
        document = QJsonDocument::fromJson(data, &error);
        if (error.error != QJsonParseError::NoError)
            errorText = error.errorString();
        else if (!document.isObject()
                 && (document.array().isEmpty() || !document.array().first().isObject()))
            errorText = QStringLiteral("the document is not a settings object");
    } else {
        error.error = QJsonParseError::DocumentTooLarge;
        error.offset = 0;
        errorText = error.errorString();
    }
    if (!errorText.isEmpty()) {
        const auto *file = qobject_cast<const QFile *>(&device);
        const QString source
            = file ? file->fileName() : QString::fromLatin1(device.metaObject()->className());
        qCDebug(QGuiLog).noquote()
            << tr("Ошибка при чтении настроек JSON:\n %1 \n%2 в строке %3")
                   .arg(source, errorText, QString::number(lineOfOffset(data, error.offset)));
        // A file of QSettings' own is moved aside: the next sync would
        // otherwise replace it with only the keys set since.
        if (file && !qobject_cast<const QSaveFile *>(&device)
            && !file->fileName().startsWith(QLatin1Char(':'))) {
            const QString aside = moveAside(file->fileName());
            if (aside.isEmpty())
                qCWarning(QGuiLog).noquote()
                    << tr("Повреждённый файл настроек %1 не удалось переименовать")
                           .arg(file->fileName());
            else
                qCWarning(QGuiLog).noquote() << tr("Повреждённый файл настроек %1 сохранён как %2")
                                                    .arg(file->fileName(), aside);
        }
        return false;
    }
    QString prefix;
    processReadKey(prefix, map,
                   document.isArray() ? QJsonValue(document.array())
                                      : QJsonValue(document.object()));
    return true;
}

bool QtJsonSettings::writeJsonFile(QIODevice &device, const SettingsMap &map)
{
    WriteNode root;
    root.kind = WriteNode::Kind::Object;
    bool ok = true;
    for (auto it = map.constBegin(); ok && it != map.constEnd(); ++it) {
        ok = processWriteKey(root, it.key(), it.value());
        if (!ok)
            qCWarning(QGuiLog).noquote()
                << QStringLiteral("QtJsonSettings: key nests deeper than %1 levels: %2")
                       .arg(MaxDepth)
                       .arg(it.key().left(80));
    }
    JsonBuilder builder;
    QJsonValue json;
    if (ok) {
        json = builder.value(root, 1);
        if (builder.tooDeep) {
            qCWarning(QGuiLog) << "QtJsonSettings: settings nest deeper than" << MaxDepth
                               << "levels";
            ok = false;
        }
        if (!builder.unknown.isEmpty()) {
            qCWarning(QGuiLog).noquote()
                << QStringLiteral("QtJsonSettings: values of these keys cannot be kept in a "
                                  "settings file: %1")
                       .arg(builder.unknown.join(QStringLiteral(", ")));
            ok = false;
        }
    }
    if (ok) {
        const QJsonDocument document
            = json.isArray() ? QJsonDocument(json.toArray()) : QJsonDocument(json.toObject());
        const QByteArray bytes = document.toJson(QJsonDocument::Indented);
        ok = device.write(bytes) == bytes.size();
    }
    if (!ok)
        qCWarning(QGuiLog).noquote() << tr("Ошибка при записи настроек JSON");
    return ok;
}

bool readMapSettings(QIODevice &, QSettings::SettingsMap &)
{
    return true;
}

bool writeMapSettings(QIODevice &device, const QSettings::SettingsMap &)
{
    if (auto *saveFile = qobject_cast<QSaveFile *>(&device))
        saveFile->cancelWriting();
    else if (auto *file = qobject_cast<QFile *>(&device))
        file->remove();
    return true;
}

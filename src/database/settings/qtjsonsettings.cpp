#include <database/settings/qtjsonsettings.h>

#include <database/core/log.h>

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QJsonValue>
#include <QSaveFile>

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <vector>

QSettings::Format QtJsonSettings::JsonFormat = QSettings::InvalidFormat;

namespace {

const QString MapPrefix = QStringLiteral("@Map_");

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
        return value.toString();
    case QJsonValue::Array: {
        const QJsonArray array = value.toArray();
        QVariantList list;
        list.reserve(array.size());
        for (const QJsonValue &element : array)
            list.append(settingsValue(element));
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

// The last segment of a prefix: the text between the trailing "/" and the one
// before it.
QStringRef lastSegment(const QString &prefix)
{
    const int end = prefix.size() - 1;
    if (end < 0)
        return QStringRef();
    const int start = end > 0 ? prefix.lastIndexOf(QLatin1Char('/'), end - 1) + 1 : 0;
    return prefix.midRef(start, end - start);
}

// Walks one parsed value into the map. The prefix is empty or ends with "/";
// it is restored before returning, so one string serves the whole walk.
void processReadKey(QString &prefix, QtJsonSettings::SettingsMap &map, const QJsonValue &value)
{
    const int prefixLength = prefix.size();
    if (value.isObject()) {
        const QStringRef segment = lastSegment(prefix);
        if (segment.startsWith(MapPrefix)) {
            QString key = withoutTrailingSlash(prefix);
            key.remove(segment.position(), MapPrefix.size());
            map.insert(key, settingsValue(value));
            return;
        }
        const QJsonObject object = value.toObject();
        for (auto it = object.constBegin(); it != object.constEnd(); ++it) {
            prefix += it.key();
            prefix += QLatin1Char('/');
            processReadKey(prefix, map, it.value());
            prefix.truncate(prefixLength);
        }
        return;
    }
    if (value.isArray()) {
        const QJsonArray array = value.toArray();
        if (!array.isEmpty() && array.first().isObject()) {
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
    enum class Kind { Invalid, Object, Array, Leaf };
    Kind kind = Kind::Invalid;
    std::map<QString, WriteNode> members;
    std::vector<WriteNode> elements;
    QVariant leaf;
};

WriteNode leafNode(const QVariant &value)
{
    WriteNode node;
    node.kind = value.isValid() ? WriteNode::Kind::Leaf : WriteNode::Kind::Invalid;
    node.leaf = value;
    return node;
}

// A node is taken as an object to descend into: a map value set earlier is
// opened into its entries, anything else that is not an object starts afresh.
void makeObject(WriteNode &node)
{
    if (node.kind == WriteNode::Kind::Object)
        return;
    WriteNode object;
    object.kind = WriteNode::Kind::Object;
    if (node.kind == WriteNode::Kind::Leaf && node.leaf.userType() == QMetaType::QVariantMap) {
        const QVariantMap map = node.leaf.toMap();
        for (auto it = map.constBegin(); it != map.constEnd(); ++it)
            object.members.emplace(it.key(), leafNode(it.value()));
    }
    node = std::move(object);
}

// Turns the node into a list when its "size" key calls for one: see rule 4 of
// the header. The count starts at 1, so the list forms only when exactly one
// of the entries 1..n is absent.
bool processWriteList(WriteNode &node, const QString &key, const QVariant &value)
{
    if (key != QLatin1String("size"))
        return false;
    bool ok = false;
    const int n = value.toInt(&ok);
    if (!ok || n <= 0)
        return false;
    // n - 1 of the entries must be present: a bound that also keeps a huge
    // size from allocating a huge list.
    if (std::size_t(n - 1) > node.members.size())
        return false;
    int count = 1;
    for (int i = 1; i <= n; ++i)
        count += int(node.members.count(QString::number(i)));
    if (count != n)
        return false;
    std::vector<WriteNode> elements(static_cast<std::size_t>(n));
    for (int i = 1; i <= n; ++i) {
        auto it = node.members.find(QString::number(i));
        if (it != node.members.end())
            elements[std::size_t(i - 1)] = std::move(it->second);
    }
    node = WriteNode();
    node.kind = WriteNode::Kind::Array;
    node.elements = std::move(elements);
    return true;
}

// Inserts one settings key; false when the key alone nests deeper than
// MaxDepth.
bool processWriteKey(WriteNode &root, const QString &key, const QVariant &value)
{
    WriteNode *node = &root;
    int start = 0;
    int depth = 1;
    for (;;) {
        makeObject(*node);
        const int slash = key.indexOf(QLatin1Char('/'), start);
        if (slash < 0)
            break;
        if (++depth > QtJsonSettings::MaxDepth)
            return false;
        node = &node->members[key.mid(start, slash - start)];
        start = slash + 1;
    }
    QString leafKey = key.mid(start);
    if (processWriteList(*node, leafKey, value))
        return true;
    if (value.userType() == QMetaType::QVariantMap)
        leafKey.prepend(MapPrefix);
    node->members[leafKey] = leafNode(value);
    return true;
}

constexpr qint64 MaxExactJsonInteger = qint64(1) << 53;

// Converts the tree to QtCore's JSON values, refusing (tooDeep) to nest
// containers deeper than QtCore's parser would read back.
class JsonBuilder
{
public:
    bool tooDeep = false;

    QJsonValue value(const WriteNode &node, int depth)
    {
        if (node.kind == WriteNode::Kind::Leaf)
            return value(node.leaf, depth);
        if (node.kind == WriteNode::Kind::Invalid || !enter(depth))
            return QJsonValue(QJsonValue::Null);
        if (node.kind == WriteNode::Kind::Array) {
            QJsonArray array;
            for (const WriteNode &element : node.elements)
                array.append(value(element, depth + 1));
            return array;
        }
        QJsonObject object;
        for (const auto &member : node.members)
            object.insert(member.first, value(member.second, depth + 1));
        return object;
    }

    QJsonValue value(const QVariant &leaf, int depth)
    {
        switch (leaf.userType()) {
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
        case QMetaType::LongLong: {
            const qlonglong n = leaf.toLongLong();
            if (n > MaxExactJsonInteger || n < -MaxExactJsonInteger)
                return QString::number(n);
            return QJsonValue(qint64(n));
        }
        case QMetaType::ULongLong: {
            const qulonglong n = leaf.toULongLong();
            if (n > qulonglong(MaxExactJsonInteger))
                return QString::number(n);
            return QJsonValue(qint64(n));
        }
        default:
            return QJsonValue::fromVariant(leaf);
        }
    }

private:
    bool enter(int depth)
    {
        if (depth > QtJsonSettings::MaxDepth)
            tooDeep = true;
        return !tooDeep;
    }
};

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

bool QtJsonSettings::readJsonFile(QIODevice &device, SettingsMap &map)
{
    QByteArray data;
    QJsonParseError error;
    QJsonDocument document;
    if (readAtMost(device, MaxFileSize, data)) {
        document = QJsonDocument::fromJson(data, &error);
    } else {
        error.error = QJsonParseError::DocumentTooLarge;
        error.offset = 0;
    }
    if (error.error != QJsonParseError::NoError) {
        const auto *file = qobject_cast<const QFile *>(&device);
        const QString source
            = file ? file->fileName() : QString::fromLatin1(device.metaObject()->className());
        qCDebug(QGuiLog).noquote() << tr("Ошибка при чтении настроек JSON:\n %1 \n%2 в строке %3")
                                          .arg(source, error.errorString(),
                                               QString::number(lineOfOffset(data, error.offset)));
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
    bool ok = true;
    for (auto it = map.constBegin(); ok && it != map.constEnd(); ++it) {
        if (it.key().isEmpty())
            continue;
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

#ifndef DATABASE_SETTINGS_QTJSONSETTINGS_H
#define DATABASE_SETTINGS_QTJSONSETTINGS_H

#include <database/database_global.h>

#include <QObject>
#include <QSettings>

class QIODevice;

// The "json" settings format: QSettings' flat map of "group/sub/key" paths to
// values, kept on disk as a nested, indented JSON document.
//
// Two formats are registered with QSettings while the library loads (before
// any code of the host runs):
//   - "json": readJsonFile / writeJsonFile; its value is JsonFormat, to be
//     given to QSettings constructors that open JSON settings files;
//   - "map": readMapSettings / writeMapSettings, the store of MapSettings,
//     whose value is mapFormat().
// Both values are whatever QSettings::registerFormat returned: the first two
// registrations of a process get CustomFormat1 (17) and CustomFormat2 (18),
// but a library loaded earlier may have taken those, so no code may assume
// fixed numbers. If QSettings has no free slot left the value is
// QSettings::InvalidFormat and a warning is logged.
//
// Mapping of keys and values:
//   1. A JSON object is a group: each member "m" under path "p" is walked as
//      "p/m". An empty object leaves no key behind.
//   2. A setting whose value is a QVariantMap is written as an object whose
//      name has "@Map_" in front, and such an object reads back as one map
//      value under the name without the prefix (so it is not taken for a group).
//   3. A JSON array whose first element is an object is a settings array:
//      element i (counted from 1) is walked as "p/i" and "p/size" holds the
//      element count. Any other array is one list value (QVariantList).
//   4. On writing, a "size" key whose integer value n > 0 turns its group into
//      a JSON array of the group's entries 1..n only when exactly one of those
//      entries is missing (the missing one becomes null); a group holding all
//      n entries stays an object with members "1".."n" and "size". Readers of
//      existing files depend on this asymmetry; it must not be "fixed". A
//      group that holds anything besides "size" and entries 1..n stays an
//      object, so no member is dropped, and so does the root when entry 1 is
//      the missing one (a document that is an array must open with an object).
//   5. Numbers keep their kind: whole numbers read back as int (or qlonglong
//      when they do not fit an int), others as double. Integers beyond +-2^53
//      cannot be held exactly by a JSON number as QtCore writes it, so they
//      are written as decimal text and read back as QString (toLongLong()
//      recovers the exact value) rather than silently rounded.
//   6. null reads back as an invalid QVariant. A JSON array of strings (not
//      empty) reads back as a QStringList, any other array as a QVariantList
//      (so a QVariantList of strings only comes back as a QStringList, and
//      an empty QStringList as an empty QVariantList; both convert).
//   7. Empty keys and empty segments ("a//b") are skipped on writing, as
//      QSettings does; an empty settings map is written as "{}".
//   8. A key that is both a value and a group ("window" = 640 beside
//      "window/height") keeps its own value as the group's member "" (no
//      settings key has an empty segment, so the name is free):
//      {"window": {"": 640, "height": 480}}.
//   9. Member names that begin with "@" are the format's markers: "@Map_x"
//      (a map value, rule 2), "@Hash_x" (a QVariantHash value, read back as
//      one), "@List_x" (a list value whose first element is a map or hash,
//      which rule 3 would otherwise read as a settings array). A key segment
//      of the user's that begins with "@" is written with a second "@" in
//      front ("@@Map_x") and read back without it.
//  10. Values JSON cannot hold are written as tagged strings, "@Tag(text)";
//      a string of the user's that begins with "@" gets a second "@" in front
//      ("@@home" reads back as "@home"), so plain strings stay plain:
//        QByteArray             "@ByteArray(<base64>)"
//        QRect, QSize, QPoint   "@Rect(x y w h)", "@Size(w h)", "@Point(x y)"
//        QDateTime              "@DateTime(<ISO 8601 with ms>)" for local
//                               time, UTC and fixed offsets; "@DateTime()"
//                               for a null date-time
//        NaN and infinities     "@Double(nan)", "@Double(inf)", "@Double(-inf)"
//        other types            "@Variant(<base64 of QVariant's QDataStream
//                               form, Qt 5.15>)", as Qt's INI format does:
//                               QColor, QKeySequence and QFont (their stream
//                               operators come with QtGui, which any process
//                               using this library loads, so the library's
//                               interface needs no QtGui), QDate, QTime, a
//                               QDateTime with a named time zone, QRectF,
//                               QSizeF, QPointF, QLine(F), QUrl, QUuid, QChar,
//                               and the application's own types registered
//                               with stream operators.
//      Tags are decoded inside map and list values too. A tag that does not
//      decode (damaged text, a type this process does not know) reads back as
//      its text, so nothing read is dropped. Other Qt types (images,
//      polygons, regions...) are refused: their stream form lets a short text
//      claim gigabytes on reading. QtCore's QJson* values are written as the
//      plain JSON they hold and read back as plain values; a hash nested in a
//      map or list value reads back as a map.
//
// Nothing is dropped silently on writing: a value the format cannot keep (a
// refused type, a type without stream operators) fails the whole write with a
// warning naming the keys, so QSettings reports AccessError and the old file
// stays.
//
// Errors: a document that does not parse (bad syntax, not JSON, nesting deeper
// than QtCore's parser allows, or larger than MaxFileSize) or has the wrong
// shape (not an object, nor an array of objects) leaves the map empty, is
// logged as a debug message of category "QGuiLog" in Russian with the file
// name, the parser's error text and the line, and makes readJsonFile return
// false, which QSettings reports as QSettings::FormatError. Note that
// QSettings never calls the read function for an empty or missing file: such
// a file is an empty settings file, not an error. A failed write is logged as
// a warning of category "QGuiLog" and returns false (QSettings then reports
// QSettings::AccessError and leaves the old file in place).
//
// A damaged file is never overwritten: when the device that failed to read is
// a file on disk (as QSettings hands over), readJsonFile renames it to
// "<name>.damaged-<yyyyMMdd-HHmmss>" (local time; "-2", "-3"... when taken)
// and logs a warning naming both files; damagedCopy() tells the new name.
// QSettings then holds no keys for the file, and its next write creates a
// fresh file. Files in Qt resources and other devices are only reported.
//
// Thread-safety: the functions keep no state between calls and may run on any
// thread, as QSettings calls them on the thread that reads or syncs.
class DATABASE_EXPORT QtJsonSettings : public QObject
{
    Q_OBJECT
public:
    using SettingsMap = QSettings::SettingsMap;

    // Settings files larger than this are refused unread, so a stray huge
    // file cannot exhaust memory.
    static constexpr qint64 MaxFileSize = 64 * 1024 * 1024;
    // Settings that would nest JSON objects and arrays deeper than this (the
    // limit of QtCore's parser) are refused on writing, since the file could
    // not be read back; a failed write leaves the old file in place.
    static constexpr int MaxDepth = 1024;

    static bool readJsonFile(QIODevice &device, SettingsMap &map);
    static bool writeJsonFile(QIODevice &device, const SettingsMap &map);

    // The name a damaged settings file was last moved to in this process, or
    // an empty string when it never was.
    static QString damagedCopy(const QString &fileName);

    // Value of the "json" format, set while the library loads.
    static QSettings::Format JsonFormat;
    // Value of the "map" format (registers both formats if that has not
    // happened yet, so it is safe during static initialisation).
    static QSettings::Format mapFormat();

private:
    QtJsonSettings() = delete;
};

// The "map" format: a store that never leaves memory. Reading finds nothing;
// writing destroys whatever the device would put on disk (it cancels a
// QSaveFile, so nothing is committed, or removes a plain QFile) and reports
// success. QSettings then keeps the values in its in-memory store only.
DATABASE_EXPORT bool readMapSettings(QIODevice &device, QSettings::SettingsMap &map);
DATABASE_EXPORT bool writeMapSettings(QIODevice &device, const QSettings::SettingsMap &map);

#endif // DATABASE_SETTINGS_QTJSONSETTINGS_H

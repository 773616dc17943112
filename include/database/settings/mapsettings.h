#ifndef DATABASE_SETTINGS_MAPSETTINGS_H
#define DATABASE_SETTINGS_MAPSETTINGS_H

#include <database/database_global.h>
#include <database/settings/settings.h>

#include <QScopedPointer>
#include <QSettings>

class MapSettingsPrivate;

// Settings that live only in memory: a scratch set of settings to fill, edit,
// copy, and then store into a real settings object (or restore from one).
//
// Store: every MapSettings is a QSettings on the empty file name in the "map"
// format (QtJsonSettings::mapFormat()). QSettings keeps one in-memory store per
// file name, so all MapSettings share it; each keeps its values apart inside
// a base group of its own named after its address ("0x" and 16 lower-case hex
// digits). The format value is the one QSettings::registerFormat returned when
// the library registered "map", not a fixed number: in a process where nothing
// registered a format before the library it is 18 (CustomFormat2), but a
// library loaded earlier shifts it, and a QSettings opened on a number that
// belongs to another format would read and write with that format's functions.
//
// Nothing reaches the disk: the store has no file name, and the "map" format's
// write function cancels whatever QSettings would commit, so sync() keeps the
// values in memory and leaves QSettings' status at AccessError (QSettings'
// way of saying that nothing was written). During a sync QSettings briefly
// holds a lock file named ".lock" in the working directory and removes it
// again; no file remains.
//
// Invariants:
//   1. From construction to destruction the object's current group is its
//      base group or a group below it; endAllGroups() and clear() return to
//      the base group.
//   2. Keys seen through this object (allKeys, value, ...) are relative to the
//      base group; no other MapSettings sees them, and after destruction (or
//      clear) the shared store holds nothing of this object.
//
// QSettings::clear() would empty the whole shared store, the values of every
// MapSettings; MapSettings::clear() hides it and empties only this object's
// base group. Call it through a MapSettings, not through a QSettings pointer.
//
// store / storeAdd / restore copy the keys below the current group of the
// source; they read every value first and then write, so source and target
// may be the same object.
//
// Thread-safety: one thread at a time per object; the shared store is guarded
// by QSettings.
class DATABASE_EXPORT MapSettings : public QSettings
{
    Q_OBJECT
public:
    MapSettings();
    explicit MapSettings(const QSettings &source);
    explicit MapSettings(const Settings &source);
    MapSettings(const MapSettings &other);
    MapSettings &operator=(const MapSettings &other);
    ~MapSettings() override;

    // Enters the base group (leaving any group entered before).
    void init();
    // Removes every value of this object and returns to the base group.
    void clear();
    // Leaves the groups entered below the base group.
    void endAllGroups();

    // Makes group (or the whole target when group is empty) hold exactly this
    // object's keys.
    void store(QSettings &target, const QString &group = QString()) const;
    void store(Settings &target, const QString &group = QString()) const;
    // Copies this object's keys into target's group, keeping target's other
    // keys; a key replaces a group of the same name.
    void storeAdd(QSettings &target, const QString &group = QString()) const;

    // Adds the keys of source's group (or of its current group when group is
    // empty) to this object; only operator= clears first.
    void restore(const Settings &source, const QString &group = QString());
    void restore(QSettings &source, const QString &group);
    void restore(const QSettings &source);

    Settings &asSetRef();
    const Settings &asSetRef() const;

private:
    QSettings::SettingsMap snapshot() const;

    const QScopedPointer<MapSettingsPrivate> d;
};

#endif // DATABASE_SETTINGS_MAPSETTINGS_H

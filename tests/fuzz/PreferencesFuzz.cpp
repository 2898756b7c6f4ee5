// The preferences file as the program reads it at start, and the settings over it: whatever
// the file holds, what the settings read is what they write back, through the file, unchanged.
#include "FuzzSupport.h"
#include "NotificationCenter.h"
#include "PreferencesStore.h"
#include "UserSettings.h"

#include <QMetaProperty>

#include <cmath>

namespace {

// A store in memory holding what a file gave.
struct Store : PreferencesStore {
    explicit Store(std::map<QString, PreferenceValue> values = {}) { m_values = std::move(values); }
    QByteArray file() const { return JsonPreferencesStore::serialize(m_values); }
};

// Every setting: the properties the pages bind to, and the two active document ids.
void copy(const UserSettings& from, UserSettings& to)
{
    const auto* meta = from.metaObject();
    for (int i = meta->propertyOffset(); i < meta->propertyCount(); ++i)
        meta->property(i).write(&to, meta->property(i).read(&from));
    to.setActiveResumeId(from.activeResumeId());
    to.setActiveJobDescriptionId(from.activeJobDescriptionId());
}

bool same(const UserSettings& a, const UserSettings& b)
{
    const auto* meta = a.metaObject();
    for (int i = meta->propertyOffset(); i < meta->propertyCount(); ++i)
        if (meta->property(i).read(&a) != meta->property(i).read(&b))
            return false;
    return a.activeResumeId() == b.activeResumeId()
           && a.activeJobDescriptionId() == b.activeJobDescriptionId();
}

} // namespace

FUZZ_TARGET(input)
{
    const auto values = JsonPreferencesStore::deserialize(input);
    if (!values)
        return; // the program keeps such a file aside and starts from defaults

    // The file as read must be written back as the same values.
    Fuzz::check(JsonPreferencesStore::deserialize(Store(*values).file()) == values,
                "stored values that do not survive a save and a load");

    NotificationCenter notifications;
    Store loaded(*values);
    const UserSettings fromFile(loaded, notifications);
    Fuzz::check(std::isfinite(fromFile.overlayOpacity())
                    && std::isfinite(fromFile.overlayFontSize()),
                "a size or opacity that is not a finite number");
    const auto key = AITriggerKey::fromJson(fromFile.aiTriggerKey().toJson());
    Fuzz::check(key == fromFile.aiTriggerKey(),
                "a trigger key that does not survive its own coding");

    // What the settings read, assigned to fresh settings, saved to a file and read again.
    Store written;
    UserSettings writer(written, notifications);
    copy(fromFile, writer);
    const auto saved = JsonPreferencesStore::deserialize(written.file());
    Fuzz::check(saved.has_value(), "a file the program writes and cannot read");
    Store reloaded(*saved);
    Fuzz::check(same(UserSettings(reloaded, notifications), fromFile),
                "a setting that reads back differently after it is saved");
}

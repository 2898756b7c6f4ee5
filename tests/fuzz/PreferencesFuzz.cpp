// The preferences file as the program reads it at start, and the settings over it: whatever
// the file holds, what the settings read is what they write back, through the file, unchanged.
#include "FuzzSupport.h"
#include "NotificationCenter.h"
#include "PreferencesStore.h"
#include "UserSettings.h"

#include <cmath>

namespace {

struct Snapshot {
    QString inputLanguage;
    QString outputLanguage;
    double overlayOpacity;
    double overlayFontSize;
    bool autoTrigger;
    bool telemetry;
    std::optional<QString> resumeId;
    std::optional<QString> jobDescriptionId;
    AITriggerKey triggerKey;
    friend bool operator==(const Snapshot&, const Snapshot&) = default;
};

Snapshot read(const UserSettings& settings)
{
    return {settings.inputLanguage(),        settings.outputLanguage(),
            settings.overlayOpacity(),       settings.overlayFontSize(),
            settings.autoTriggerAIAnswers(), settings.sendAnonymousTelemetry(),
            settings.activeResumeId(),       settings.activeJobDescriptionId(),
            settings.aiTriggerKey()};
}

void write(UserSettings& settings, const Snapshot& values)
{
    settings.setInputLanguage(values.inputLanguage);
    settings.setOutputLanguage(values.outputLanguage);
    settings.setOverlayOpacity(values.overlayOpacity);
    settings.setOverlayFontSize(values.overlayFontSize);
    settings.setAutoTriggerAIAnswers(values.autoTrigger);
    settings.setSendAnonymousTelemetry(values.telemetry);
    settings.setActiveResumeId(values.resumeId);
    settings.setActiveJobDescriptionId(values.jobDescriptionId);
    settings.setAITriggerKey(values.triggerKey);
}

std::map<QString, PreferenceValue> contents(const PreferencesStore& store)
{
    std::map<QString, PreferenceValue> values;
    for (const auto& key : store.keys())
        values.emplace(key, *store.value(key));
    return values;
}

void fill(PreferencesStore& store, const std::map<QString, PreferenceValue>& values)
{
    for (const auto& [key, value] : values)
        store.setValue(key, value);
}

} // namespace

FUZZ_TARGET(input)
{
    const auto file = input.rest();
    const auto values = JsonPreferencesStore::deserialize(file);
    if (!values)
        return; // the program keeps such a file aside and starts from defaults

    // The file as read must be written back as the same values.
    const auto reread = JsonPreferencesStore::deserialize(JsonPreferencesStore::serialize(*values));
    Fuzz::check(reread && *reread == *values,
                "stored values that do not survive a save and a load");

    NotificationCenter notifications;
    PreferencesStore loaded;
    fill(loaded, *values);
    const UserSettings fromFile(loaded, notifications);
    const auto seen = read(fromFile);
    Fuzz::check(std::isfinite(seen.overlayOpacity) && std::isfinite(seen.overlayFontSize),
                "a size or opacity that is not a finite number");
    const auto key = AITriggerKey::fromJson(seen.triggerKey.toJson());
    Fuzz::check(key && *key == seen.triggerKey,
                "a trigger key that does not survive its own coding");

    // What the settings read, assigned to fresh settings, saved to a file and read again.
    PreferencesStore written;
    UserSettings writer(written, notifications);
    write(writer, seen);
    const auto saved =
        JsonPreferencesStore::deserialize(JsonPreferencesStore::serialize(contents(written)));
    Fuzz::check(saved.has_value(), "a file the program writes and cannot read");
    PreferencesStore reloaded;
    fill(reloaded, *saved);
    const UserSettings again(reloaded, notifications);
    Fuzz::check(read(again) == seen, "a setting that reads back differently after it is saved");
}

#pragma once

#include "Records.h"

#include <QList>
#include <QObject>

#include <array>
#include <optional>

class Clock;

// Turns the two recognisers' segment streams into one ordered transcript. A speaker's
// utterance is one entry that grows as final pieces arrive; the text the vendor may still
// revise is kept apart as one partial per speaker, shown but never stored in `entries`.
// Passive: no timers, no threads; it reads the clock when a segment arrives.
class TranscriptManager : public QObject {
    Q_OBJECT

public:
    using Speaker = TranscriptEntry::Speaker;

    // A final piece later than this after the speaker's previous one opens a new entry;
    // exactly this gap still merges.
    static constexpr qint64 utteranceGapMs = 5000;
    static constexpr int displayedEntryCount = 5;

    explicit TranscriptManager(Clock& clock, QObject* parent = nullptr);

    // The committed entry as it now stands, or nothing for a partial.
    std::optional<TranscriptEntry> processSegment(const TranscriptSegment& segment);
    void closeActiveEntry(Speaker speaker);
    void closeAllActiveEntries();
    void reset();

    std::optional<QString> latestInterviewerText() const;
    // The last five committed entries, then the non-empty partials, newest partial first.
    QList<TranscriptEntry> displayedEntries() const;
    QString partialSummary() const;
    QList<QJsonObject> finalEntriesForUpload() const;

    const QList<TranscriptEntry>& entries() const { return m_entries; }
    std::optional<QString> currentPartialText(Speaker speaker) const { return m_partialTexts[index(speaker)]; }
    std::optional<qint64> partialUpdatedAtMs(Speaker speaker) const { return m_partialUpdatedAtMs[index(speaker)]; }
    std::optional<QString> activeEntryId(Speaker speaker) const { return m_activeEntryIds[index(speaker)]; }
    std::optional<qint64> lastCommitTimestampMs(Speaker speaker) const { return m_lastCommitMs[index(speaker)]; }

    static QString partialRowId(Speaker speaker);

Q_SIGNALS:
    void entriesChanged();
    void currentPartialTextsChanged();
    void partialUpdatedAtMsChanged();
    void activeEntryIdsChanged();
    void lastCommitTimestampMsChanged();

private:
    template<typename T>
    using PerSpeaker = std::array<std::optional<T>, 2>;

    static constexpr std::size_t index(Speaker speaker) { return static_cast<std::size_t>(speaker); }
    // Speakers whose partial text is not empty, most recently updated first; on equal times
    // the interviewer comes first.
    std::array<std::optional<Speaker>, 2> partialsByRecency() const;
    void clearPartial(Speaker speaker);

    Clock& m_clock;
    QList<TranscriptEntry> m_entries;
    PerSpeaker<QString> m_partialTexts;
    PerSpeaker<qint64> m_partialUpdatedAtMs;
    PerSpeaker<QString> m_activeEntryIds;
    PerSpeaker<qint64> m_lastCommitMs;
};

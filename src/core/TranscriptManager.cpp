#include "TranscriptManager.h"

#include "Clock.h"
#include "Helpers.h"

using namespace Qt::StringLiterals;

namespace {
constexpr std::array speakers{TranscriptEntry::Speaker::interviewer, TranscriptEntry::Speaker::user};
} // namespace

TranscriptManager::TranscriptManager(Clock& clock, QObject* parent)
    : QObject(parent), m_clock(clock)
{
}

QString TranscriptManager::partialRowId(Speaker speaker)
{
    return u"partial-"_s + toText(speaker);
}

std::optional<TranscriptEntry> TranscriptManager::processSegment(const TranscriptSegment& segment)
{
    const auto i = index(segment.speaker);
    if (!segment.isFinal) {
        m_partialTexts[i] = segment.text;
        m_partialUpdatedAtMs[i] = m_clock.nowMs();
        Q_EMIT currentPartialTextsChanged();
        Q_EMIT partialUpdatedAtMsChanged();
        return std::nullopt;
    }

    // The gap is measured between arrivals on this machine, not the vendor's timestamps.
    const auto now = m_clock.nowMs();
    const auto last = m_lastCommitMs[i].value_or(0);
    if (last > 0 && now - last > utteranceGapMs)
        closeActiveEntry(segment.speaker);
    m_lastCommitMs[i] = now;
    Q_EMIT lastCommitTimestampMsChanged();

    // Ids are unique, so searching from the back finds the same entry as a scan from the
    // front, and the active entry is almost always among the last two.
    qsizetype activeIndex = -1;
    if (const auto& activeId = m_activeEntryIds[i]) {
        for (auto k = m_entries.size() - 1; k >= 0; --k) {
            if (m_entries.at(k).id == *activeId) {
                activeIndex = k;
                break;
            }
        }
    }

    TranscriptEntry result;
    if (activeIndex >= 0) {
        auto& entry = m_entries[activeIndex];
        entry.content += u' ';
        entry.content += segment.text;
        entry.confidence = segment.confidence;
        result = entry;
    } else {
        result = TranscriptEntry{uuidUpper(), segment.speaker, segment.text, segment.timestampMs,
                                 segment.confidence, true};
        m_entries.append(result);
        m_activeEntryIds[i] = result.id;
        Q_EMIT activeEntryIdsChanged();
    }
    Q_EMIT entriesChanged();

    if (m_partialTexts[i] || m_partialUpdatedAtMs[i])
        clearPartial(segment.speaker);
    return result;
}

void TranscriptManager::clearPartial(Speaker speaker)
{
    m_partialTexts[index(speaker)].reset();
    m_partialUpdatedAtMs[index(speaker)].reset();
    Q_EMIT currentPartialTextsChanged();
    Q_EMIT partialUpdatedAtMsChanged();
}

void TranscriptManager::closeActiveEntry(Speaker speaker)
{
    if (!m_activeEntryIds[index(speaker)])
        return;
    m_activeEntryIds[index(speaker)].reset();
    Q_EMIT activeEntryIdsChanged();
}

void TranscriptManager::closeAllActiveEntries()
{
    for (const auto speaker : speakers)
        closeActiveEntry(speaker);
}

void TranscriptManager::reset()
{
    m_entries.clear();
    Q_EMIT entriesChanged();
    m_partialTexts = {};
    Q_EMIT currentPartialTextsChanged();
    m_partialUpdatedAtMs = {};
    Q_EMIT partialUpdatedAtMsChanged();
    m_activeEntryIds = {};
    Q_EMIT activeEntryIdsChanged();
    m_lastCommitMs = {};
    Q_EMIT lastCommitTimestampMsChanged();
}

std::optional<QString> TranscriptManager::latestInterviewerText() const
{
    for (auto k = m_entries.size() - 1; k >= 0; --k) {
        if (m_entries.at(k).speaker == Speaker::interviewer)
            return m_entries.at(k).content;
    }
    return std::nullopt;
}

std::array<std::optional<TranscriptEntry::Speaker>, 2> TranscriptManager::partialsByRecency() const
{
    std::array<std::optional<Speaker>, 2> order{};
    std::size_t count = 0;
    for (const auto speaker : speakers) {
        const auto& text = m_partialTexts[index(speaker)];
        if (text && !text->isEmpty())
            order[count++] = speaker;
    }
    // Descending by update time, an absent time counting as 0; a tie keeps map order.
    if (count == 2
        && m_partialUpdatedAtMs[index(*order[1])].value_or(0)
               > m_partialUpdatedAtMs[index(*order[0])].value_or(0))
        std::swap(order[0], order[1]);
    return order;
}

QList<TranscriptEntry> TranscriptManager::displayedEntries() const
{
    QList<TranscriptEntry> rows;
    rows.reserve(displayedEntryCount + 2);
    const auto first = std::max<qsizetype>(0, m_entries.size() - displayedEntryCount);
    for (auto k = first; k < m_entries.size(); ++k)
        rows.append(m_entries.at(k));
    for (const auto& speaker : partialsByRecency()) {
        if (!speaker)
            continue;
        rows.append(TranscriptEntry{partialRowId(*speaker), *speaker,
                                    *m_partialTexts[index(*speaker)], m_clock.nowMs(),
                                    std::nullopt, false});
    }
    return rows;
}

QString TranscriptManager::partialSummary() const
{
    QStringList lines;
    for (const auto& speaker : partialsByRecency()) {
        if (!speaker)
            continue;
        const auto label = *speaker == Speaker::interviewer ? u"[Interviewer] "_s : u"[You] "_s;
        lines.append(label + *m_partialTexts[index(*speaker)]);
    }
    return lines.join(u'\n');
}

QList<QJsonObject> TranscriptManager::finalEntriesForUpload() const
{
    QList<QJsonObject> forms;
    forms.reserve(m_entries.size());
    for (const auto& entry : m_entries) {
        if (entry.isFinal)
            forms.append(entry.uploadForm());
    }
    return forms;
}

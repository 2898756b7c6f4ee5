#include "TranscriptRowsModel.h"

#include "InterviewViewModel.h"

#include <algorithm>

TranscriptRowsModel::TranscriptRowsModel(InterviewViewModel& interview, QObject* parent)
    : RowsModel(parent)
    , m_interview(interview)
{
    const auto& transcript = interview.transcriptManager();
    connect(&transcript, &TranscriptManager::entriesChanged, this, &TranscriptRowsModel::update);
    connect(&transcript, &TranscriptManager::currentPartialTextsChanged, this,
            &TranscriptRowsModel::update);
    // The order of the partials follows their update times.
    connect(&transcript, &TranscriptManager::partialUpdatedAtMsChanged, this,
            &TranscriptRowsModel::update);
    connect(&interview, &InterviewViewModel::selectedTranscriptIndexChanged, this,
            &TranscriptRowsModel::update);
    update();
}

double TranscriptRowsModel::rowOpacity(int index, int count)
{
    if (count < 2)
        return 1;
    const int stepsBack = count - 1 - index;
    return std::max(opacityFloor, 1 - opacityStep * stepsBack);
}

QList<TranscriptRow> TranscriptRowsModel::currentRows() const
{
    const auto entries = m_interview.transcriptManager().displayedEntries();
    const auto selected = m_interview.selectedTranscriptIndex();
    const auto count = static_cast<int>(entries.size());
    QList<TranscriptRow> rows;
    rows.reserve(count);
    int finalPosition = 0; // the selection counts final rows only
    for (int k = 0; k < count; ++k) {
        const auto& entry = entries.at(k);
        TranscriptRow row{entry.id, entry.content, entry.isFinal,
                          entry.speaker == TranscriptEntry::Speaker::interviewer, rowOpacity(k, count), false};
        if (entry.isFinal) {
            row.isSelected = selected && *selected == finalPosition;
            ++finalPosition;
        }
        rows.append(row);
    }
    return rows;
}

void TranscriptRowsModel::update()
{
    refresh(currentRows());
    const auto& shown = rows();
    const auto selected =
        std::find_if(shown.cbegin(), shown.cend(), [](const TranscriptRow& row) { return row.isSelected; });
    const int selectedRow = selected == shown.cend() ? -1 : static_cast<int>(selected - shown.cbegin());
    if (selectedRow != m_selectedRow) {
        m_selectedRow = selectedRow;
        Q_EMIT selectedRowChanged();
    }
}

QVariant TranscriptRow::value(int role) const
{
    switch (role) {
    case TranscriptRowsModel::RowIdRole:
        return id;
    case Qt::DisplayRole:
    case TranscriptRowsModel::ContentRole:
        return content;
    case TranscriptRowsModel::IsFinalRole:
        return isFinal;
    case TranscriptRowsModel::IsInterviewerRole:
        return isInterviewer;
    case TranscriptRowsModel::RowOpacityRole:
        return opacity;
    case TranscriptRowsModel::IsSelectedRole:
        return isSelected;
    default:
        return {};
    }
}

QHash<int, QByteArray> TranscriptRow::roleNames()
{
    return {{TranscriptRowsModel::RowIdRole, "rowId"},
            {TranscriptRowsModel::ContentRole, "content"},
            {TranscriptRowsModel::IsFinalRole, "isFinal"},
            {TranscriptRowsModel::IsInterviewerRole, "isInterviewer"},
            {TranscriptRowsModel::RowOpacityRole, "rowOpacity"},
            {TranscriptRowsModel::IsSelectedRole, "isSelected"}};
}

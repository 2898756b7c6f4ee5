#include "TranscriptRowsModel.h"

#include "InterviewViewModel.h"

#include <algorithm>

TranscriptRowsModel::TranscriptRowsModel(InterviewViewModel& interview, QObject* parent)
    : QAbstractListModel(parent)
    , m_interview(interview)
{
    const auto& transcript = interview.transcriptManager();
    connect(&transcript, &TranscriptManager::entriesChanged, this, &TranscriptRowsModel::refresh);
    connect(&transcript, &TranscriptManager::currentPartialTextsChanged, this,
            &TranscriptRowsModel::refresh);
    // The order of the partials follows their update times.
    connect(&transcript, &TranscriptManager::partialUpdatedAtMsChanged, this,
            &TranscriptRowsModel::refresh);
    connect(&interview, &InterviewViewModel::selectedTranscriptIndexChanged, this,
            &TranscriptRowsModel::refresh);
    m_rows = currentRows();
    for (int k = 0; k < m_rows.size(); ++k) {
        if (m_rows.at(k).isSelected)
            m_selectedRow = k;
    }
}

double TranscriptRowsModel::rowOpacity(int index, int count)
{
    if (count < 2)
        return 1;
    const int stepsBack = count - 1 - index;
    return std::max(opacityFloor, 1 - opacityStep * stepsBack);
}

QList<TranscriptRowsModel::Row> TranscriptRowsModel::currentRows() const
{
    const auto entries = m_interview.transcriptManager().displayedEntries();
    const auto selected = m_interview.selectedTranscriptIndex();
    const auto count = static_cast<int>(entries.size());
    QList<Row> rows;
    rows.reserve(count);
    int finalPosition = 0; // the selection counts final rows only
    for (int k = 0; k < count; ++k) {
        const auto& entry = entries.at(k);
        Row row{entry.id, entry.content, entry.isFinal,
                entry.speaker == TranscriptEntry::Speaker::interviewer, rowOpacity(k, count), false};
        if (entry.isFinal) {
            row.isSelected = selected && *selected == finalPosition;
            ++finalPosition;
        }
        rows.append(row);
    }
    return rows;
}

void TranscriptRowsModel::refresh()
{
    const auto next = currentRows();
    // Rows that keep their place are updated in place; the list below them is replaced. A new
    // partial or entry only ever changes the tail, so views keep their delegates.
    qsizetype kept = 0;
    while (kept < m_rows.size() && kept < next.size() && m_rows.at(kept).id == next.at(kept).id)
        ++kept;
    if (kept < m_rows.size()) {
        beginRemoveRows({}, static_cast<int>(kept), static_cast<int>(m_rows.size() - 1));
        m_rows.resize(kept);
        endRemoveRows();
    }
    for (qsizetype k = 0; k < kept; ++k) {
        if (m_rows.at(k) == next.at(k))
            continue;
        m_rows[k] = next.at(k);
        const auto changed = index(static_cast<int>(k));
        Q_EMIT dataChanged(changed, changed);
    }
    if (kept < next.size()) {
        beginInsertRows({}, static_cast<int>(kept), static_cast<int>(next.size() - 1));
        m_rows.append(next.mid(kept));
        endInsertRows();
    }
    const auto selected = std::find_if(m_rows.cbegin(), m_rows.cend(),
                                       [](const Row& row) { return row.isSelected; });
    const int selectedRow = selected == m_rows.cend() ? -1 : static_cast<int>(selected - m_rows.cbegin());
    if (selectedRow != m_selectedRow) {
        m_selectedRow = selectedRow;
        Q_EMIT selectedRowChanged();
    }
}

int TranscriptRowsModel::rowCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : static_cast<int>(m_rows.size());
}

QVariant TranscriptRowsModel::data(const QModelIndex& index, int role) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid))
        return {};
    const auto& row = m_rows.at(index.row());
    switch (role) {
    case RowIdRole:
        return row.id;
    case Qt::DisplayRole:
    case ContentRole:
        return row.content;
    case IsFinalRole:
        return row.isFinal;
    case IsInterviewerRole:
        return row.isInterviewer;
    case RowOpacityRole:
        return row.opacity;
    case IsSelectedRole:
        return row.isSelected;
    default:
        return {};
    }
}

QHash<int, QByteArray> TranscriptRowsModel::roleNames() const
{
    return {{RowIdRole, "rowId"},
            {ContentRole, "content"},
            {IsFinalRole, "isFinal"},
            {IsInterviewerRole, "isInterviewer"},
            {RowOpacityRole, "rowOpacity"},
            {IsSelectedRole, "isSelected"}};
}

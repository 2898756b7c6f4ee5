#include "AnswersModel.h"

#include "InterviewViewModel.h"

AnswersModel::AnswersModel(InterviewViewModel& interview, QObject* parent)
    : QAbstractListModel(parent)
    , m_interview(interview)
{
    connect(&interview, &InterviewViewModel::aiAnswerHistoryChanged, this, &AnswersModel::refresh);
    connect(&interview, &InterviewViewModel::selectedAnswerIndexChanged, this, &AnswersModel::refresh);
    connect(&interview, &InterviewViewModel::isGeneratingAnswerChanged, this, &AnswersModel::refresh);
    m_rows = currentRows();
}

QList<AnswersModel::Row> AnswersModel::currentRows() const
{
    const auto& history = m_interview.aiAnswerHistory();
    const auto selected = m_interview.selectedAnswerIndex();
    QList<Row> rows;
    rows.reserve(history.size());
    for (qsizetype k = 0; k < history.size(); ++k) {
        const auto& entry = history.at(k);
        const bool isSelected = selected && *selected == k;
        // Only the newest answer can still be growing.
        const bool isStreaming = m_interview.isGeneratingAnswer() && k == history.size() - 1;
        rows.append(Row{entry.id, entry.question, entry.answer, isSelected, isStreaming});
    }
    return rows;
}

void AnswersModel::refresh()
{
    const auto next = currentRows();
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
}

int AnswersModel::rowCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : static_cast<int>(m_rows.size());
}

QVariant AnswersModel::data(const QModelIndex& index, int role) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid))
        return {};
    const auto& row = m_rows.at(index.row());
    switch (role) {
    case QuestionRole:
        return row.question;
    case Qt::DisplayRole:
    case AnswerRole:
        return row.answer;
    case IsSelectedRole:
        return row.isSelected;
    case IsStreamingRole:
        return row.isStreaming;
    default:
        return {};
    }
}

QHash<int, QByteArray> AnswersModel::roleNames() const
{
    return {{QuestionRole, "question"},
            {AnswerRole, "answer"},
            {IsSelectedRole, "isSelected"},
            {IsStreamingRole, "isStreaming"}};
}

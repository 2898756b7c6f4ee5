#include "AnswersModel.h"

#include "InterviewViewModel.h"

AnswersModel::AnswersModel(InterviewViewModel& interview, QObject* parent)
    : RowsModel(parent)
    , m_interview(interview)
{
    const auto update = [this] { refresh(currentRows()); };
    connect(&interview, &InterviewViewModel::aiAnswerHistoryChanged, this, update);
    connect(&interview, &InterviewViewModel::selectedAnswerIndexChanged, this, update);
    connect(&interview, &InterviewViewModel::isGeneratingAnswerChanged, this, update);
    update();
}

QList<AnswerRow> AnswersModel::currentRows() const
{
    const auto& history = m_interview.aiAnswerHistory();
    const auto selected = m_interview.selectedAnswerIndex();
    QList<AnswerRow> rows;
    rows.reserve(history.size());
    for (qsizetype k = 0; k < history.size(); ++k) {
        const auto& entry = history.at(k);
        const bool isSelected = selected && *selected == k;
        // Only the newest answer can still be growing.
        const bool isStreaming = m_interview.isGeneratingAnswer() && k == history.size() - 1;
        rows.append(AnswerRow{entry.id, entry.question, entry.answer, isSelected, isStreaming});
    }
    return rows;
}

QVariant AnswerRow::value(int role) const
{
    switch (role) {
    case AnswersModel::QuestionRole:
        return question;
    case Qt::DisplayRole:
    case AnswersModel::AnswerRole:
        return answer;
    case AnswersModel::IsSelectedRole:
        return isSelected;
    case AnswersModel::IsStreamingRole:
        return isStreaming;
    default:
        return {};
    }
}

QHash<int, QByteArray> AnswerRow::roleNames()
{
    return {{AnswersModel::QuestionRole, "question"},
            {AnswersModel::AnswerRole, "answer"},
            {AnswersModel::IsSelectedRole, "isSelected"},
            {AnswersModel::IsStreamingRole, "isStreaming"}};
}

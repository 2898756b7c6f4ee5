#pragma once

#include "RowsModel.h"

#include <QList>
#include <QString>
#include <QUuid>
#include <QtQmlIntegration>

class InterviewViewModel;

struct AnswerRow {
    QUuid id;
    QString question;
    QString answer;
    bool isSelected = false;
    bool isStreaming = false;

    QVariant value(int role) const;
    static QHash<int, QByteArray> roleNames();
    friend bool operator==(const AnswerRow&, const AnswerRow&) = default;
};

// The answers of the interview, oldest first, as the overlay pages through them. A streamed
// chunk changes one row in place.
class AnswersModel : public RowsModel<AnswerRow> {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("made by the overlay")

public:
    enum Role {
        QuestionRole = Qt::UserRole + 1,
        AnswerRole,
        IsSelectedRole,
        IsStreamingRole,
    };
    Q_ENUM(Role)

    explicit AnswersModel(InterviewViewModel& interview, QObject* parent = nullptr);

private:
    QList<AnswerRow> currentRows() const;

    InterviewViewModel& m_interview;
};

#pragma once

#include <QAbstractListModel>
#include <QList>
#include <QString>
#include <QUuid>
#include <QtQmlIntegration>

class InterviewViewModel;

// The answers of the interview, oldest first, as the overlay pages through them. A streamed
// chunk changes one row in place.
class AnswersModel : public QAbstractListModel {
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

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

private:
    struct Row {
        QUuid id;
        QString question;
        QString answer;
        bool isSelected = false;
        bool isStreaming = false;
        friend bool operator==(const Row&, const Row&) = default;
    };

    void refresh();
    QList<Row> currentRows() const;

    InterviewViewModel& m_interview;
    QList<Row> m_rows;
};

#pragma once

#include "RowsModel.h"

#include <QList>
#include <QString>
#include <QtQmlIntegration>

class InterviewViewModel;

struct TranscriptRow {
    QString id;
    QString content;
    bool isFinal = false;
    bool isInterviewer = true;
    double opacity = 1;
    bool isSelected = false;

    QVariant value(int role) const;
    static QHash<int, QByteArray> roleNames();
    friend bool operator==(const TranscriptRow&, const TranscriptRow&) = default;
};

// The overlay's transcript: the displayed entries (the last committed ones, then the
// partials), each with its age shading and whether it is the selected question.
class TranscriptRowsModel : public RowsModel<TranscriptRow> {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("made by the overlay")
    // The row the selection points at, or -1; the list scrolls to it.
    Q_PROPERTY(int selectedRow READ selectedRow NOTIFY selectedRowChanged)

public:
    enum Role {
        RowIdRole = Qt::UserRole + 1,
        ContentRole,
        IsFinalRole,
        IsInterviewerRole,
        RowOpacityRole,
        IsSelectedRole,
    };
    Q_ENUM(Role)

    explicit TranscriptRowsModel(InterviewViewModel& interview, QObject* parent = nullptr);

    int selectedRow() const { return m_selectedRow; }

    // Older rows fade: the newest is fully opaque, each step back loses a quarter, and from
    // the fourth step back they all stay at the floor.
    static double rowOpacity(int index, int count);
    static constexpr double opacityStep = 0.25;
    static constexpr double opacityFloor = 0.25;

Q_SIGNALS:
    void selectedRowChanged();

private:
    void update();
    QList<TranscriptRow> currentRows() const;

    InterviewViewModel& m_interview;
    int m_selectedRow = -1;
};

#pragma once

#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QtQmlIntegration>

class DocumentListViewModel;
class NotificationCenter;

// The practice page: a resume and a job description to pick, what stands in the way, and the
// start. It reads the lists the resume and job description pages hold.
class MockInterviewPageViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("made by the dashboard")
    Q_PROPERTY(Blocker blocker READ blocker NOTIFY changed)
    // The string key of the message that names the blocker; empty when there is none to name.
    Q_PROPERTY(QString blockerKey READ blockerKey NOTIFY changed)
    // Why a list could not be loaded, shown in place of the blocker's message.
    Q_PROPERTY(QString loadError READ loadError NOTIFY changed)
    Q_PROPERTY(bool isLoading READ isLoading NOTIFY changed)
    Q_PROPERTY(QStringList resumeNames READ resumeNames NOTIFY changed)
    Q_PROPERTY(QStringList jobDescriptionNames READ jobDescriptionNames NOTIFY changed)
    Q_PROPERTY(int resumeIndex READ resumeIndex WRITE setResumeIndex NOTIFY changed)
    Q_PROPERTY(int jobDescriptionIndex READ jobDescriptionIndex WRITE setJobDescriptionIndex NOTIFY changed)
    Q_PROPERTY(bool canStart READ canStart NOTIFY changed)

public:
    // What keeps the user from starting, the first that holds in this order.
    enum class Blocker { none, signedOut, loading, loadFailed, noResume, noJobDescription };
    Q_ENUM(Blocker)

    MockInterviewPageViewModel(DocumentListViewModel& resumes, DocumentListViewModel& jobs,
                               NotificationCenter& notifications, QObject* parent = nullptr);

    // The page appeared: both lists are fetched again.
    Q_INVOKABLE void load();
    // Posts the start of a practice session with the two chosen ids.
    Q_INVOKABLE void start();

    Blocker blocker() const;
    QString blockerKey() const;
    QString loadError() const;
    bool isLoading() const { return blocker() == Blocker::loading; }
    QStringList resumeNames() const { return names(*m_resumes); }
    QStringList jobDescriptionNames() const { return names(*m_jobs); }
    int resumeIndex() const { return m_resumeIndex; }
    void setResumeIndex(int index);
    int jobDescriptionIndex() const { return m_jobIndex; }
    void setJobDescriptionIndex(int index);
    bool canStart() const;

Q_SIGNALS:
    void changed();

private:
    static QStringList names(const DocumentListViewModel& list);
    // A list that changed keeps its choice where it can, else takes its active or first row.
    void listChanged();

    QPointer<DocumentListViewModel> m_resumes;
    QPointer<DocumentListViewModel> m_jobs;
    NotificationCenter& m_notifications;
    int m_resumeIndex = -1;
    int m_jobIndex = -1;
};

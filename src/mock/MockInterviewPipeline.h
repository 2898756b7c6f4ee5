#pragma once

#include <QCoroTask>
#include <QPointer>
#include <QString>

class InterviewViewModel;

// What a practice session needs of the interview pipeline: the user's answers are recognised as
// in a real interview, and each question enters the transcript as the interviewer's line.
class MockInterviewPipeline {
public:
    virtual ~MockInterviewPipeline() = default;
    virtual bool isRecording() const = 0;
    virtual QCoro::Task<> startMockInterview(QString sessionId) = 0;
    virtual void injectMockQuestion(const QString& text) = 0;
    virtual QCoro::Task<> stopInterview() = 0;
};

// The interview view model, held weakly: a practice session never keeps it alive, and once it
// is gone questions are still spoken but no longer written down.
class ViewModelPipeline final : public MockInterviewPipeline {
public:
    explicit ViewModelPipeline(InterviewViewModel* viewModel);

    bool isRecording() const override;
    QCoro::Task<> startMockInterview(QString sessionId) override;
    void injectMockQuestion(const QString& text) override;
    QCoro::Task<> stopInterview() override;

private:
    QPointer<InterviewViewModel> m_viewModel;
};

#include "MockInterviewPipeline.h"

#include "InterviewViewModel.h"

ViewModelPipeline::ViewModelPipeline(InterviewViewModel* viewModel)
    : m_viewModel(viewModel)
{
}

bool ViewModelPipeline::isRecording() const
{
    return m_viewModel && m_viewModel->isRecording();
}

QCoro::Task<> ViewModelPipeline::startMockInterview(QString sessionId)
{
    if (m_viewModel)
        co_await m_viewModel->startMockInterview(std::move(sessionId));
}

void ViewModelPipeline::injectMockQuestion(const QString& text)
{
    if (m_viewModel)
        m_viewModel->injectMockQuestion(text);
}

QCoro::Task<> ViewModelPipeline::stopInterview()
{
    // Stopping also leaves mock mode.
    if (m_viewModel)
        co_await m_viewModel->stopInterview();
}

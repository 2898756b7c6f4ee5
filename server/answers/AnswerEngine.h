// server/answers/AnswerEngine.h
#pragma once
#include <QString>
#include <QStringList>
#include <functional>
namespace ravlet::server {
struct AnswerRequest {
    QString question;            // the interviewer's question
    QStringList recentTranscript; // recent lines, oldest first, each "Interviewer: ..." or "You: ..."
    QString resumeText;          // active resume text, may be empty
    QString jobDescriptionText;  // active job description text, may be empty
    QString outputLanguage;      // language name or code for the answer, may be empty
};
// Streams one answer. `onChunk` is called for each piece of text as it is produced; `onDone` exactly
// once at the end with an empty string on success or an error message. Calls come on the thread that
// called `answer` (its event loop). `cancel` of the returned handle stops further calls.
class AnswerEngine {
public:
    virtual ~AnswerEngine() = default;
    struct Handle { std::function<void()> cancel; };
    virtual Handle answer(const AnswerRequest& request,
                          std::function<void(const QString& chunk)> onChunk,
                          std::function<void(const QString& error)> onDone) = 0;
};
} // namespace ravlet::server

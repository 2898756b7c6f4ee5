#pragma once

#include "AnswerEngine.h"

#include <QUrl>

namespace ravlet::server {

// Answers through any server that speaks the OpenAI chat-completions protocol with streaming
// (Ollama, the llama.cpp server, vLLM, a hosted service), passing each content delta on as it
// arrives.
class OpenAICompatibleAnswerEngine final : public AnswerEngine {
public:
    // `baseUrl` may end in "/v1" or not ("http://127.0.0.1:11434" and
    // "http://127.0.0.1:11434/v1/" are the same server). An empty key sends no Authorization.
    OpenAICompatibleAnswerEngine(const QString& baseUrl, QString model, QString apiKey);

    Handle answer(const AnswerRequest& request, std::function<void(const QString& chunk)> onChunk,
                  std::function<void(const QString& error)> onDone) override;

private:
    QUrl m_url;
    QString m_model;
    QString m_apiKey;
};

} // namespace ravlet::server

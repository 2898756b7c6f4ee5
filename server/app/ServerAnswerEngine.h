#pragma once

#include "AnswerEngine.h"
#include "ServerOptions.h"

#include <memory>

// The engine that answers questions: a chat-completions endpoint when --llm-base-url is
// given, otherwise the offline drafting engine.
std::unique_ptr<ravlet::server::AnswerEngine> answerEngineFor(const ServerOptions& options);

#pragma once

#include "AnswerEngine.h"

#include <QString>

#include <memory>

namespace ravlet::server {

struct AnswerEngineConfig {
    QString baseUrl; // an OpenAI-compatible server; empty means no model
    QString model;
    QString apiKey;
};

// The model server's engine when a base URL is set, otherwise the offline drafting engine.
std::unique_ptr<AnswerEngine> makeAnswerEngine(const AnswerEngineConfig& config);

} // namespace ravlet::server

#pragma once

#include <QString>

namespace ravlet::server {

// The kinds of interview question that call for differently built answers.
enum class QuestionKind {
    introduction,        // "Tell me about yourself."
    behavioural,         // "Tell me about a time when..."
    strengthsWeaknesses, // "What is your greatest weakness?"
    motivation,          // "Why do you want this role?"
    technical,           // "How would you design...?", "What is...?"
    general,
};

QuestionKind classifyQuestion(const QString& question);

} // namespace ravlet::server

#pragma once

#include "AnswerEngine.h"

namespace ravlet::server {

// Answers without a language model: a structured draft built from the user's own resume and
// job description (see OfflineDraft.h), streamed a line at a time through the caller's event
// loop so that many interviews share one thread fairly.
class OfflineAnswerEngine final : public AnswerEngine {
public:
    Handle answer(const AnswerRequest& request, std::function<void(const QString& chunk)> onChunk,
                  std::function<void(const QString& error)> onDone) override;
};

} // namespace ravlet::server

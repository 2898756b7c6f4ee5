#include "AnswerEngineFactory.h"

#include "OfflineAnswerEngine.h"
#include "OpenAICompatibleAnswerEngine.h"

namespace ravlet::server {

std::unique_ptr<AnswerEngine> makeAnswerEngine(const AnswerEngineConfig& config)
{
    if (config.baseUrl.trimmed().isEmpty())
        return std::make_unique<OfflineAnswerEngine>();
    return std::make_unique<OpenAICompatibleAnswerEngine>(config.baseUrl, config.model.trimmed(),
                                                          config.apiKey.trimmed());
}

} // namespace ravlet::server

#include "ServerAnswerEngine.h"

#include "AnswerEngineFactory.h"

std::unique_ptr<ravlet::server::AnswerEngine> answerEngineFor(const ServerOptions& options)
{
    return ravlet::server::makeAnswerEngine({options.llmBaseUrl, options.llmModel, options.llmApiKey});
}

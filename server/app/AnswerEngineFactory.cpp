#include "AnswerEngineFactory.h"

// MERGE POINT: the answers engines (server/answers, library server_answers) are built on their
// own branch. When that branch is merged, this function creates the OpenAI-compatible client
// for options.llmBaseUrl / llmModel / llmApiKey, and the offline drafting engine otherwise.
// Until then the answer route answers 503 "No answer engine is configured on this server".
std::unique_ptr<ravlet::server::AnswerEngine> makeAnswerEngine(const ServerOptions& options)
{
    Q_UNUSED(options);
    return nullptr;
}

// The OpenAI recogniser's handling of the vendor's frames.
#include "OpenAISTTProvider.h"
#include "SpeechMessagesFuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return Fuzz::runSpeechMessages<OpenAISTTProvider>(data, size, QStringLiteral("OpenAI"));
}

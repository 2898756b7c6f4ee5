// The Deepgram recogniser's handling of the vendor's frames.
#include "DeepgramProvider.h"
#include "SpeechMessagesFuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return Fuzz::runSpeechMessages<DeepgramProvider>(data, size, QStringLiteral("Deepgram"));
}

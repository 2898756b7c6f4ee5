// The ElevenLabs recogniser's handling of the vendor's frames.
#include "ElevenLabsProvider.h"
#include "SpeechMessagesFuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return Fuzz::runSpeechMessages<ElevenLabsProvider>(data, size, QStringLiteral("ElevenLabs"));
}

#include "SpeechVendor.h"

using namespace Qt::StringLiterals;

QString vendorName(SpeechVendor vendor)
{
    switch (vendor) {
    case SpeechVendor::deepgram:
        return u"deepgram"_s;
    case SpeechVendor::elevenlabs:
        return u"elevenlabs"_s;
    case SpeechVendor::openai:
        return u"openai"_s;
    }
    return {};
}

QString vendorDisplayName(SpeechVendor vendor)
{
    switch (vendor) {
    case SpeechVendor::deepgram:
        return u"Deepgram"_s;
    case SpeechVendor::elevenlabs:
        return u"ElevenLabs"_s;
    case SpeechVendor::openai:
        return u"OpenAI"_s;
    }
    return {};
}

std::optional<SpeechVendor> vendorFromName(const QString& name)
{
    for (auto vendor : {SpeechVendor::deepgram, SpeechVendor::elevenlabs, SpeechVendor::openai}) {
        if (vendorName(vendor) == name.trimmed().toLower())
            return vendor;
    }
    return std::nullopt;
}

QString defaultVendorBaseUrl(SpeechVendor vendor)
{
    switch (vendor) {
    case SpeechVendor::deepgram:
        return u"https://api.deepgram.com"_s;
    case SpeechVendor::elevenlabs:
        return u"https://api.elevenlabs.io"_s;
    case SpeechVendor::openai:
        return u"https://api.openai.com"_s;
    }
    return {};
}

#pragma once

#include <QString>

#include <optional>

// The speech vendors a client can stream to; their names are the wire's `provider` values.
enum class SpeechVendor { deepgram, elevenlabs, openai };

QString vendorName(SpeechVendor vendor);        // "deepgram", ...
QString vendorDisplayName(SpeechVendor vendor); // "Deepgram", ...
std::optional<SpeechVendor> vendorFromName(const QString& name);
// The public HTTPS origin of the vendor's token API.
QString defaultVendorBaseUrl(SpeechVendor vendor);

// What the server needs to mint tokens for one vendor. The key stays in memory only.
struct SpeechVendorConfig {
    SpeechVendor vendor = SpeechVendor::deepgram;
    QString apiKey;
    QString baseUrl; // no trailing slash
    // The transcription model handed to clients, where the vendor lets the server choose one.
    QString sttModel;
};

#pragma once

#include "WebSocketSpeechProvider.h"

// ElevenLabs' realtime speech-to-text socket: every frame is JSON text, the audio travels as
// base64 inside it, and the vendor decides where an utterance ends, so no partial is kept here.
class ElevenLabsProvider final : public WebSocketSpeechProvider {
    Q_OBJECT

public:
    ElevenLabsProvider(Speaker speaker, Clock& clock, QString origin = defaultOrigin(),
                       QObject* parent = nullptr);

    static QString defaultOrigin();

protected:
    Connection connection(const QString& token, const QString& language,
                          const std::optional<QString>& model) override;
    std::optional<Message> audioMessage(const PcmBuffer& buffer) const override;
    void handleMessage(const QString& text) override;
    std::optional<QString> closingMessage() const override;
    std::optional<std::pair<std::chrono::milliseconds, QString>> keepAlive() const override;
};

#pragma once

#include "WebSocketSpeechProvider.h"

// OpenAI's realtime socket in transcription mode. Unlike the other vendors the token rides in
// a subprotocol, the session is configured by a first message that goes out before any audio,
// the audio is resampled to 24 kHz, and there is no keep-alive.
class OpenAISTTProvider final : public WebSocketSpeechProvider {
    Q_OBJECT

public:
    OpenAISTTProvider(Speaker speaker, Clock& clock, QString origin = defaultOrigin(),
                      QObject* parent = nullptr);

    static QString defaultOrigin();
    // Used when the token response names no model.
    static QString defaultModel();

    // The first frame of a session: transcription only, server-side turn detection. An empty
    // language leaves the field out and the vendor detects it.
    static QString makeSessionUpdate(const QString& model, const QString& language);

protected:
    Connection connection(const QString& token, const QString& language,
                          const std::optional<QString>& model) override;
    std::optional<Message> audioMessage(const PcmBuffer& buffer) const override;
    void handleMessage(const QString& text) override;
    std::optional<QString> closingMessage() const override;
    std::optional<QString> openingMessage() const override { return m_sessionUpdate; }
    QString openingFailurePrefix() const override;

private:
    QString m_sessionUpdate;
};

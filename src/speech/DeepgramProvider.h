#pragma once

#include "WebSocketSpeechProvider.h"

// Deepgram's streaming listen socket: raw 16-bit frames out, JSON results in. English goes to
// the v2 turn-taking model, which reports turns ("TurnInfo") instead of results; the other
// languages use v1, whose utterance ends may come without a final result, so the last
// partial is kept and turned into a final one then.
class DeepgramProvider final : public WebSocketSpeechProvider {
    Q_OBJECT

public:
    DeepgramProvider(Speaker speaker, Clock& clock, QString origin = defaultOrigin(), QObject* parent = nullptr);

    static QString defaultOrigin();
    QString currentPartialText() const { return m_currentPartialText; }

protected:
    Connection connection(const QString& token, const QString& language, const std::optional<QString>& model) override;
    std::optional<Message> audioMessage(const PcmBuffer& buffer) const override;
    void handleMessage(const QString& text) override;
    std::optional<QString> closingMessage() const override;
    std::optional<std::pair<std::chrono::milliseconds, QString>> keepAlive() const override;

private:
    void handleResults(const QJsonObject& message);
    void handleTurnInfo(const QJsonObject& message);
    void flushPartial();

    QString m_currentPartialText;
    bool m_isV2 = false;
};

#pragma once

// The practice session's outside parties as tests script them: a speech player that plays until
// the test ends the clip, at a loudness the test sets, and the questions route's answer.

#include "TTSPlayer.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

class ScriptedPlayer final : public TTSPlayer {
public:
    using TTSPlayer::TTSPlayer;
    ~ScriptedPlayer() override { stop(); }
    void endClip() { outputEnded(); }
    double power = -25;
    QList<QByteArray> started;

protected:
    QCoro::Task<bool> prepare(QByteArray bytes) override
    {
        m_pending = bytes;
        co_return true;
    }
    void startOutput() override { started.append(m_pending); }
    void haltOutput() override {}
    std::optional<double> currentPower() override { return power; }

private:
    QByteArray m_pending;
};

// "Question 0?" to "Question <count - 1>?" of session "s1".
inline QByteArray questionsJson(int count)
{
    QJsonArray list;
    for (int i = 0; i < count; ++i)
        list.append(QJsonObject{{QStringLiteral("id"), QStringLiteral("q%1").arg(i)},
                                {QStringLiteral("text"), QStringLiteral("Question %1?").arg(i)},
                                {QStringLiteral("category"), QStringLiteral("c")}});
    return QJsonDocument(QJsonObject{{QStringLiteral("sessionId"), QStringLiteral("s1")},
                                     {QStringLiteral("questions"), list}})
        .toJson();
}

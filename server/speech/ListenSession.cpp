#include "ListenSession.h"

#include <utility>

using namespace Qt::StringLiterals;
using Kind = RecognitionEvent::Kind;

ListenSession::ListenSession(DeepgramWire::ListenRequest request, QString requestId)
    : m_request(std::move(request)), m_requestId(std::move(requestId))
{
}

QStringList ListenSession::opening() const
{
    if (m_request.version == 2)
        return {DeepgramWire::connected(m_requestId)};
    return {};
}

void ListenSession::add(const RecognitionEvent& event, bool fromFinalize, QStringList& out)
{
    const bool isFinal = event.kind == Kind::final;
    const bool wasPhraseOpen = std::exchange(m_isPhraseOpen, !isFinal);
    m_hasWordsSinceUtteranceEnd = true;
    m_lastWordEnd = event.start + event.duration;
    if (m_request.version == 2) {
        using DeepgramWire::TurnEvent;
        const auto turnEvent = isFinal ? TurnEvent::endOfTurn : wasPhraseOpen ? TurnEvent::update : TurnEvent::startOfTurn;
        out << DeepgramWire::turnInfo(turnEvent, m_turnIndex, event.text, event.start, m_lastWordEnd);
        if (isFinal)
            ++m_turnIndex;
        return;
    }
    if (!isFinal && !m_request.interimResults)
        return;
    out << DeepgramWire::results({event.text, event.confidence, isFinal, isFinal && event.atPause, fromFinalize,
                                  event.start, event.duration},
                                 m_requestId);
}

QStringList ListenSession::heard(const std::vector<RecognitionEvent>& events, double audioSeconds)
{
    QStringList out;
    for (const auto& event : events)
        add(event, false, out);
    // Version 2 closes turns by itself; the gap message belongs to version 1 alone.
    if (m_request.version == 1 && m_request.utteranceEndMs > 0 && m_hasWordsSinceUtteranceEnd && !m_isPhraseOpen
        && audioSeconds - m_lastWordEnd >= m_request.utteranceEndMs / 1000.0) {
        m_hasWordsSinceUtteranceEnd = false;
        out << DeepgramWire::utteranceEnd(m_lastWordEnd);
    }
    return out;
}

QStringList ListenSession::finalized(const std::vector<RecognitionEvent>& events, double)
{
    QStringList out;
    for (const auto& event : events)
        add(event, true, out);
    return out;
}

QStringList ListenSession::closing(const std::vector<RecognitionEvent>& events, double audioSeconds)
{
    auto out = finalized(events, audioSeconds);
    if (m_request.version == 1)
        out << DeepgramWire::metadata(m_requestId, audioSeconds);
    return out;
}

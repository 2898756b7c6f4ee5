#include "RecognizerWorker.h"

#include "Log.h"

#include <QThread>

#include <algorithm>

using namespace Qt::StringLiterals;

RecognizerWorker::RecognizerWorker(DeepgramWire::ListenRequest request, QString requestId,
                                   OfflineRecognizer::Options options, QObject* parent)
    : QObject(parent), m_options(std::move(options)), m_session(std::move(request), std::move(requestId))
{
}

RecognizerWorker::~RecognizerWorker() = default;

namespace {

// Set when the socket has gone: the decoder stops at the next slice instead of finishing audio
// that nobody will read.
bool isInterrupted()
{
    return QThread::currentThread()->isInterruptionRequested();
}

} // namespace

bool RecognizerWorker::ensureStarted()
{
    if (m_isClosed || isInterrupted())
        return false;
    if (m_recognizer)
        return m_recognizer->isValid();
    m_recognizer = std::make_unique<OfflineRecognizer>(m_options);
    if (!m_recognizer->isValid()) {
        logLine(u"Speech", u"Offline recogniser unavailable: "_s + m_recognizer->errorString());
        m_isClosed = true;
        Q_EMIT failed(m_recognizer->errorString());
        return false;
    }
    send(m_session.opening());
    return true;
}

void RecognizerWorker::start()
{
    ensureStarted();
}

void RecognizerWorker::pushAudio(const QByteArray& pcm)
{
    for (qsizetype offset = 0; offset < pcm.size(); offset += sliceBytes) {
        if (!ensureStarted())
            return;
        const auto slice = QByteArrayView(pcm).sliced(offset, std::min(sliceBytes, pcm.size() - offset));
        send(m_session.heard(m_recognizer->feed(slice), m_recognizer->processedSeconds()));
    }
}

void RecognizerWorker::pushText(const QString& text)
{
    if (!ensureStarted())
        return;
    switch (DeepgramWire::parseControl(text)) {
    case DeepgramWire::Control::keepAlive:
    case DeepgramWire::Control::unknown:
        return;
    case DeepgramWire::Control::finalize:
        send(m_session.finalized(m_recognizer->finish(), m_recognizer->processedSeconds()));
        return;
    case DeepgramWire::Control::closeStream:
        send(m_session.closing(m_recognizer->finish(), m_recognizer->processedSeconds()));
        m_isClosed = true;
        Q_EMIT closeRequested();
        return;
    }
}

void RecognizerWorker::send(const QStringList& messages)
{
    for (const auto& text : messages)
        Q_EMIT message(text);
}

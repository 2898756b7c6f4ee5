#pragma once

#include "DeepgramWire.h"
#include "OfflineRecognizer.h"

#include <QStringList>

#include <vector>

// Turns what the recogniser heard into the messages of one listen socket, in the protocol
// version the client asked for. Times come from the audio itself, so a stream behaves the same
// whether it arrives in real time or all at once.
class ListenSession {
public:
    ListenSession(DeepgramWire::ListenRequest request, QString requestId);

    QStringList opening() const;
    // `audioSeconds`: audio decoded so far, which moves the "UtteranceEnd" timer.
    QStringList heard(const std::vector<RecognitionEvent>& events, double audioSeconds);
    // Answers a "Finalize": the phrase under way as a final result.
    QStringList finalized(const std::vector<RecognitionEvent>& events, double audioSeconds);
    // Answers a "CloseStream": the last result, then the stream's summary.
    QStringList closing(const std::vector<RecognitionEvent>& events, double audioSeconds);

private:
    void add(const RecognitionEvent& event, bool fromFinalize, QStringList& out);

    DeepgramWire::ListenRequest m_request;
    QString m_requestId;
    bool m_isPhraseOpen = false;
    int m_turnIndex = 0;
    bool m_hasWordsSinceUtteranceEnd = false;
    double m_lastWordEnd = 0;
};

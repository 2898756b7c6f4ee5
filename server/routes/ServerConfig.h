#pragma once

#include "SpeechVendor.h"

#include <QString>

#include <optional>

// What the routes need from the command line.
struct ServerConfig {
    // Origin of a recogniser that speaks Deepgram's streaming protocol; none: speech is off.
    std::optional<QString> speechEndpoint;
    // A vendor whose token API mints the speech tokens; it comes before `speechEndpoint`.
    std::optional<SpeechVendorConfig> speechVendor;
    // The speech synthesiser of practice interviews, run as a process.
    QString espeakProgram = QStringLiteral("espeak-ng");
    // Without an endpoint, the built-in English recogniser listens (where it is installed).
    bool offlineSpeech = true;
    // Folder of update packages "RavletAI-<version>....tar.gz"; none: never an update.
    std::optional<QString> updatesDir;
    // The origin clients reach this server at, for download links; empty: from the Host header.
    QString publicOrigin;
    bool telemetryEnabled = true;
    double telemetrySampleRate = 1.0;
    // "Continue on this computer" for loopback peers; off for a server shared by many users.
    bool localSignIn = true;
    // Anyone may create an account on the sign-in page; off: the operator creates them.
    bool signUp = true;
};

#pragma once

#include "SpeechVendor.h"

#include <QString>

#include <optional>

// Per-user and per-address limits. The defaults are far above what one real interview uses
// (a question every few seconds, a handful of documents); they stop a script, not a person.
struct Quotas {
    int answerStreamsAtOnce = 4;
    int answersPerMinute = 60;
    int speechTokensPerMinute = 30;
    int documentsKept = 200;
    qint64 documentBytes = 256LL * 1024 * 1024;
    int listenSockets = 4;
    // Telemetry and crash reports come without an account: counted per client address.
    int telemetryPerMinute = 120;
    int telemetryRowsKept = 1'000'000;
    int crashReportsKept = 10'000;
};

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
    Quotas quotas;
};

#pragma once

#include "Clock.h"
#include "SpeechVendor.h"

#include <QNetworkAccessManager>
#include <QObject>

#include <functional>
#include <optional>
#include <variant>

class QNetworkRequest;

// Mints one short-lived speech token per call from the configured vendor's token API. The
// long-lived key goes to the vendor and nowhere else: not into answers, messages or logs.
class VendorTokens : public QObject {
    Q_OBJECT

public:
    struct Token {
        QString provider;
        QString token;
        std::optional<QString> sttModel;
    };
    // A refusal for the client, in words that name the vendor; `status` is ours (502 or 503).
    struct Failure {
        int status = 502;
        QString message;
        std::optional<int> retryAfterSeconds;
    };
    using Result = std::variant<Token, Failure>;

    // A vendor that has not answered after this long, on `clock`, counts as unreachable: well
    // inside the client's own 60-second limit on the token request.
    static constexpr qint64 vendorTimeoutMs = 15'000;

    VendorTokens(SpeechVendorConfig config, Clock& clock, QObject* parent = nullptr);

    SpeechVendor vendor() const { return m_config.vendor; }
    // `done` runs once, later, on this thread; never if this object is destroyed first.
    void mint(std::function<void(const Result&)> done);

    // The vendor's answer as a result; `networkError` is set when no HTTP answer came.
    struct VendorAnswer {
        int status = 0;
        QByteArray body;
        QString networkError;
        QByteArray retryAfter;
    };
    static Result interpret(const SpeechVendorConfig& config, const VendorAnswer& answer);

private:
    QNetworkRequest request() const;
    QByteArray requestBody() const;

    SpeechVendorConfig m_config;
    Clock& m_clock;
    QNetworkAccessManager m_network;
};

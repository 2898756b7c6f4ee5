#include "InterviewCollaborators.h"

#include "APIError.h"
#include "AudioCaptureService.h"
#include "MicrophoneService.h"

#include <QNetworkReply>

using namespace Qt::StringLiterals;

namespace {

template<typename Handler>
auto inspect(const std::exception_ptr& error, Handler&& handler)
{
    try {
        if (error)
            std::rethrow_exception(error);
    } catch (const APIError& e) {
        return handler(&e, static_cast<const std::exception*>(&e));
    } catch (const std::exception& e) {
        return handler(static_cast<const APIError*>(nullptr), &e);
    } catch (...) {
    }
    return handler(static_cast<const APIError*>(nullptr),
                   static_cast<const std::exception*>(nullptr));
}

} // namespace

bool isRetryableNetworkError(const std::exception_ptr& error)
{
    return inspect(error, [](const APIError* api, const std::exception* any) {
        if (api)
            return api->kind() == APIError::Kind::networkError
                   || (api->kind() == APIError::Kind::serverError && api->status() > 499);
        const auto* transport = dynamic_cast<const TransportError*>(any);
        if (!transport)
            return false;
        switch (transport->code()) {
        case QNetworkReply::TimeoutError:              // timed out
        case QNetworkReply::ConnectionRefusedError:    // cannot connect to host
        case QNetworkReply::RemoteHostClosedError:     // network connection lost
        case QNetworkReply::NetworkSessionFailedError: // not connected to the internet
        case QNetworkReply::TemporaryNetworkFailureError:
        case QNetworkReply::HostNotFoundError:   // cannot find host
        case QNetworkReply::UnknownNetworkError: // network or host unreachable
            return true;
        default:
            return false;
        }
    });
}

QString errorDescription(const std::exception_ptr& error)
{
    return inspect(error, [](const APIError* api, const std::exception* any) -> QString {
        if (api)
            return api->description();
        if (const auto* described = dynamic_cast<const DescribedError*>(any))
            return described->description();
        if (const auto* audio = dynamic_cast<const AudioSourceError*>(any))
            return audio->description();
        if (any)
            return QString::fromUtf8(any->what());
        return u"Unknown error"_s;
    });
}

QString errorCode(const std::exception_ptr& error)
{
    return inspect(error, [](const APIError* api, const std::exception* any) -> QString {
        const auto code = [](QStringView domain, qint64 number) {
            return domain.toString() + u'#' + QString::number(number);
        };
        if (api)
            return code(u"APIError", api->status() ? api->status() : static_cast<int>(api->kind()));
        if (const auto* capture = dynamic_cast<const AudioCaptureError*>(any))
            return code(u"AudioCaptureError", static_cast<int>(capture->which()));
        if (const auto* microphone = dynamic_cast<const MicrophoneError*>(any))
            return code(u"MicrophoneError", static_cast<int>(microphone->which()));
        if (dynamic_cast<const AudioSourceError*>(any))
            return code(u"AudioSourceError", 0);
        if (const auto* transport = dynamic_cast<const TransportError*>(any))
            return code(u"QNetworkReply", transport->code());
        if (dynamic_cast<const SpeechTokenError*>(any))
            return code(u"SpeechTokenError", 0);
        return code(u"Error", 0);
    });
}

#include "Api.h"
#include "VendorTokens.h"

#include <QJsonDocument>

using namespace Qt::StringLiterals;

HttpResponse Api::tooMany(const QString& message, qint64 retryAfterSeconds)
{
    auto response = HttpResponse::error(429, message);
    response.headers.append(
        {QByteArrayLiteral("Retry-After"), QByteArray::number(retryAfterSeconds)});
    return response;
}

void Api::mintVendorToken(std::shared_ptr<HttpResponder> responder)
{
    m_vendorTokens->mint([responder](const VendorTokens::Result& result) {
        if (const auto* failure = std::get_if<VendorTokens::Failure>(&result)) {
            // The client shows `error` as it stands: the text names the vendor.
            auto response = HttpResponse::error(failure->status, failure->message);
            if (failure->retryAfterSeconds)
                response.headers.append({QByteArrayLiteral("Retry-After"),
                                         QByteArray::number(*failure->retryAfterSeconds)});
            responder->respond(response);
            return;
        }
        const auto& token = std::get<VendorTokens::Token>(result);
        QJsonObject body{{u"provider"_s, token.provider}, {u"token"_s, token.token}};
        if (token.sttModel)
            body.insert(u"sttModel"_s, *token.sttModel);
        auto response = jsonResponse(200, body);
        response.headers.append(
            {QByteArrayLiteral("Cache-Control"), QByteArrayLiteral("no-store")});
        responder->respond(response);
    });
}

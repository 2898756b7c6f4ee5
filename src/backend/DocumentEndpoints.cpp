// Resumes and job descriptions, and the hand-made multipart upload of a resume file.
#include "APIClient.h"
#include "Helpers.h"
#include "PdfTextExtractor.h"
#include "ReplySupport.h"

#include <QCoroNetworkReply>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkRequest>

using namespace Qt::StringLiterals;
using namespace ReplySupport;

namespace {
template<typename T>
QList<T> decodeList(const QJsonObject& object, const QString& key)
{
    QList<T> result;
    for (const auto& item : Json::requireArray(object, key)) {
        if (!item.isObject())
            throw DecodingError(u"Expected objects in "_s + key);
        result.append(T::fromJson(item.toObject()));
    }
    return result;
}
} // namespace

APIClient::ResumeResponse APIClient::ResumeResponse::fromJson(const QJsonObject& object)
{
    return {Json::requireString(object, u"id"_s), Json::requireString(object, u"filename"_s),
            Json::requireString(object, u"extractedText"_s), Json::requireString(object, u"createdAt"_s)};
}

APIClient::JobDescriptionResponse APIClient::JobDescriptionResponse::fromJson(const QJsonObject& object)
{
    return {Json::requireString(object, u"id"_s), Json::requireString(object, u"title"_s),
            Json::requireString(object, u"company"_s), Json::requireString(object, u"content"_s),
            Json::requireString(object, u"createdAt"_s)};
}

APIClient::ResumesWrapper APIClient::ResumesWrapper::fromJson(const QJsonObject& object)
{
    return {decodeList<ResumeResponse>(object, u"resumes"_s)};
}

APIClient::JobDescriptionsWrapper APIClient::JobDescriptionsWrapper::fromJson(const QJsonObject& object)
{
    return {decodeList<JobDescriptionResponse>(object, u"jobDescriptions"_s)};
}

QCoro::Task<APIClient::ResumesWrapper> APIClient::fetchResumes()
{
    co_return co_await get<ResumesWrapper>(u"/api/v1/resume"_s);
}

QCoro::Task<> APIClient::deleteResume(QString id)
{
    co_await deleteResource(u"/api/v1/resume/"_s + pathSegment(id));
}

QCoro::Task<APIClient::JobDescriptionsWrapper> APIClient::fetchJobDescriptions()
{
    co_return co_await get<JobDescriptionsWrapper>(u"/api/v1/job-description"_s);
}

QCoro::Task<APIClient::JobDescriptionResponse>
APIClient::createJobDescription(QString title, QString content, std::optional<QString> company)
{
    QJsonObject body{{u"title"_s, title}, {u"content"_s, content}};
    if (company)
        body.insert(u"company"_s, *company);
    Request request{QByteArray("POST"), u"/api/v1/job-description"_s, QJsonDocument(body).toJson(QJsonDocument::Compact),
                jsonHeaders()};
    co_return co_await perform<JobDescriptionResponse>(std::move(request), true);
}

QCoro::Task<> APIClient::deleteJobDescription(QString id)
{
    co_await deleteResource(u"/api/v1/job-description/"_s + pathSegment(id));
}

QString APIClient::contentTypeForExtension(const QString& ext)
{
    static const QHash<QString, QString> types{
        {u"pdf"_s, u"application/pdf"_s},
        {u"txt"_s, u"text/plain"_s},
        {u"md"_s, u"text/markdown"_s},
        {u"rtf"_s, u"application/rtf"_s},
        {u"doc"_s, u"application/msword"_s},
        {u"docx"_s, u"application/vnd.openxmlformats-officedocument.wordprocessingml.document"_s},
        {u"png"_s, u"image/png"_s},
        {u"jpg"_s, u"image/jpeg"_s},
        {u"jpeg"_s, u"image/jpeg"_s},
    };
    return types.value(ext, u"application/octet-stream"_s);
}

QByteArray APIClient::multipartBody(const QString& boundary, const QString& filename,
                                    const QString& contentType, const QByteArray& fileBytes,
                                    const std::optional<QString>& extractedText)
{
    const QByteArray crlf = "\r\n";
    const auto separator = "--" + boundary.toUtf8() + crlf;
    QByteArray body;
    body.reserve(fileBytes.size() + (extractedText ? extractedText->size() * 3 : 0) + 512);
    body += separator;
    // The name goes out as it is, neither escaped nor encoded.
    body += "Content-Disposition: form-data; name=\"file\"; filename=\"" + filename.toUtf8() + "\"" + crlf;
    body += "Content-Type: " + contentType.toUtf8() + crlf + crlf;
    body += fileBytes + crlf;
    if (extractedText) {
        body += separator;
        body += "Content-Disposition: form-data; name=\"extracted_text\"" + crlf + crlf;
        body += extractedText->toUtf8() + crlf;
    }
    body += "--" + boundary.toUtf8() + "--" + crlf;
    return body;
}

QCoro::Task<APIClient::ResumeResponse> APIClient::uploadResume(QString filePath)
{
    QFile file(filePath);
    if (!file.open(QIODevice::ReadOnly))
        throw FileReadError(file.errorString());
    const auto bytes = file.readAll();
    file.close();

    const QFileInfo info(filePath);
    const auto ext = info.suffix().toLower();
    std::optional<QString> extractedText;
    if (ext == u"pdf" && m_pdfText)
        extractedText = m_pdfText->extractText(filePath);

    const auto boundary = uuidUpper();
    Request request{"POST", u"/api/v1/resume/upload"_s,
                    multipartBody(boundary, info.fileName(), contentTypeForExtension(ext), bytes, extractedText),
                    {{QByteArray("Content-Type"), "multipart/form-data; boundary=" + boundary.toUtf8()}}};
    // No 401 recovery and no notification here: every failure is a server error.
    ReplyPtr reply(m_network->sendCustomRequest(networkRequest(request, m_accessToken), request.method,
                                                request.body));
    co_await reply.get();
    const auto status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (status.isValid() ? isTransportFailure(reply->error()) : !isNotHttp(reply->error()))
        throw transportError(*reply);
    const int code = status.isValid() ? status.toInt() : 500;
    if (!isSuccess(code))
        throw APIError::serverError(code);
    co_return ResumeResponse::fromJson(Json::parseObject(reply->readAll()));
}

#include "Api.h"
#include "Clock.h"
#include "Multipart.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QStringDecoder>

using namespace Qt::StringLiterals;

namespace {

std::optional<QString> utf8Text(const QByteArray& bytes)
{
    auto decoder = QStringDecoder(QStringDecoder::Utf8);
    QString text = decoder(bytes);
    if (decoder.hasError())
        return std::nullopt;
    return text;
}

QJsonObject resumeJson(const ResumeRecord& resume)
{
    return {{u"id"_s, resume.id},
            {u"filename"_s, resume.filename},
            {u"extractedText"_s, resume.extractedText},
            {u"createdAt"_s, isoTime(resume.createdAtMs)}};
}

QJsonObject jobJson(const JobDescriptionRecord& job)
{
    return {{u"id"_s, job.id},
            {u"title"_s, job.title},
            {u"company"_s, job.company},
            {u"content"_s, job.content},
            {u"createdAt"_s, isoTime(job.createdAtMs)}};
}

bool isTextFile(const QString& filename, const QByteArray& contentType)
{
    const auto ext = QFileInfo(filename).suffix().toLower();
    return contentType.startsWith("text/") || ext == u"txt"_s || ext == u"md"_s;
}

} // namespace

std::optional<HttpResponse> Api::documentRefusal(const QString& userId, qint64 adding)
{
    const auto usage = m_documents.usage(userId);
    const auto& quotas = m_config.quotas;
    if (usage.documents >= quotas.documentsKept)
        return tooMany(u"Too many documents: at most %1 are kept; delete one first"_s.arg(
                           quotas.documentsKept),
                       60);
    if (usage.size + adding > quotas.documentBytes)
        return tooMany(
            u"Your documents would exceed their total size of %1 bytes"_s.arg(quotas.documentBytes),
            60);
    return std::nullopt;
}

void Api::registerDocumentRoutes()
{
    addRoute("GET", u"/api/v1/resume"_s,
             [this](const HttpRequest&, const User& user, const Params&) {
                 QJsonArray list;
                 for (const auto& resume : m_documents.resumes(user.id))
                     list.append(resumeJson(resume));
                 return jsonResponse(200, {{u"resumes"_s, list}});
             });
    addRoute(
        "POST", u"/api/v1/resume/upload"_s,
        [this](const HttpRequest& request, const User& user, const Params&) {
            if (request.body.size() > maxUploadBody)
                return HttpResponse::error(413, u"The file is too large"_s);
            const auto boundary = Multipart::boundaryOf(request.header("Content-Type"));
            if (!boundary)
                return HttpResponse::error(415, u"Expected multipart/form-data"_s);
            const auto parts = Multipart::parse(request.body, *boundary);
            if (!parts)
                return HttpResponse::error(400, u"The upload is incomplete or malformed"_s);
            const Multipart::Part* file = nullptr;
            std::optional<QString> extracted;
            for (const auto& part : *parts) {
                if (part.name == u"file"_s && part.filename && !file)
                    file = &part;
                else if (part.name == u"extracted_text"_s) {
                    extracted = utf8Text(part.data);
                    if (!extracted)
                        return HttpResponse::error(400, u"extracted_text must be UTF-8"_s);
                }
            }
            if (!file || file->filename->isEmpty() || file->filename->size() > 255)
                return HttpResponse::error(
                    400, u"A file part named \"file\" with a file name is required"_s);
            ResumeRecord resume;
            resume.filename = *file->filename;
            resume.contentType = QString::fromLatin1(
                file->contentType.isEmpty() ? "application/octet-stream" : file->contentType);
            resume.fileData = file->data;
            // The program extracts PDF text itself; a plain text file is its own text.
            if (extracted)
                resume.extractedText = *extracted;
            else if (isTextFile(resume.filename, file->contentType))
                resume.extractedText = utf8Text(file->data).value_or(QString());
            resume.createdAtMs = m_clock.nowMs();
            if (auto refusal =
                    documentRefusal(user.id, resume.fileData.size() + resume.extractedText.size()))
                return *refusal;
            return jsonResponse(200, resumeJson(m_documents.addResume(user.id, std::move(resume))));
        });
    addRoute("DELETE", u"/api/v1/resume/*"_s,
             [this](const HttpRequest&, const User& user, const Params& params) {
                 return m_documents.deleteResume(user.id, params[0])
                            ? HttpResponse::noContent()
                            : HttpResponse::error(404, u"Not found"_s);
             });

    addRoute("GET", u"/api/v1/job-description"_s,
             [this](const HttpRequest&, const User& user, const Params&) {
                 QJsonArray list;
                 for (const auto& job : m_documents.jobDescriptions(user.id))
                     list.append(jobJson(job));
                 return jsonResponse(200, {{u"jobDescriptions"_s, list}});
             });
    addRoute("POST", u"/api/v1/job-description"_s,
             withJsonBody([this](const QJsonObject& object, const User& user, const Params&) {
                 const auto title = object.value(u"title"_s);
                 const auto content = object.value(u"content"_s);
                 const auto company = object.value(u"company"_s);
                 if (!title.isString() || !content.isString()
                     || !(company.isString() || company.isUndefined() || company.isNull()))
                     return HttpResponse::error(400, u"title and content must be texts"_s);
                 JobDescriptionRecord job{
                     {}, title.toString(), company.toString(), content.toString(), m_clock.nowMs()};
                 if (auto refusal = documentRefusal(user.id, job.title.size() + job.company.size()
                                                                 + job.content.size()))
                     return *refusal;
                 return jsonResponse(
                     200, jobJson(m_documents.addJobDescription(user.id, std::move(job))));
             }));
    addRoute("DELETE", u"/api/v1/job-description/*"_s,
             [this](const HttpRequest&, const User& user, const Params& params) {
                 return m_documents.deleteJobDescription(user.id, params[0])
                            ? HttpResponse::noContent()
                            : HttpResponse::error(404, u"Not found"_s);
             });
}

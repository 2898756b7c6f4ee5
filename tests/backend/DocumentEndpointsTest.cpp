#include "BackendTestSupport.h"
#include "PdfTextExtractor.h"

#include <QDir>
#include <QJsonDocument>
#include <QTemporaryDir>

using namespace Qt::StringLiterals;

namespace {
class ScriptedPdfText final : public PdfTextExtractor {
public:
    std::optional<QString> text;
    QStringList calls;
    std::optional<QString> extractText(const QString& path) override
    {
        calls.append(path);
        return text;
    }
};

const QByteArray uploadPath = "/api/v1/resume/upload";
const QByteArray resumeJson = R"({"id":"r1","filename":"CV.PDF","extractedText":"t","createdAt":"yesterday"})";
} // namespace

class DocumentEndpointsTest : public BackendTest {
protected:
    DocumentEndpointsTest() { client.setPdfTextExtractor(&pdfText); }

    QString file(const QString& name, const QByteArray& bytes)
    {
        const auto path = dir.filePath(name);
        QFile f(path);
        EXPECT_TRUE(f.open(QIODevice::WriteOnly));
        f.write(bytes);
        return path;
    }
    // The upload as the server saw it, and its boundary.
    std::pair<QByteArray, QByteArray> lastUpload()
    {
        const auto request = server.requests("POST", uploadPath).last();
        const auto type = request.header("Content-Type");
        const QByteArray prefix = "multipart/form-data; boundary=";
        EXPECT_TRUE(type.startsWith(prefix)) << type.toStdString();
        return {request.body, type.mid(prefix.size())};
    }

    QTemporaryDir dir;
    ScriptedPdfText pdfText;
};

TEST_F(DocumentEndpointsTest, PdfUploadCarriesTheExtractedTextByteForByte)
{
    storeTokens(u"A1"_s, u"R1"_s);
    server.setRoute("POST", uploadPath, FakeBackend::Response::json(200, resumeJson));
    pdfText.text = u"Page one\nZoë\n"_s;
    const QByteArray pdf("%PDF-1.4\r\n\x00\x01binary", 18);
    const auto resume = awaitTask(client.uploadResume(file(u"CV.PDF"_s, pdf)));
    EXPECT_EQ(resume.id, u"r1"_s);
    EXPECT_EQ(pdfText.calls.size(), 1);

    const auto [body, boundary] = lastUpload();
    EXPECT_TRUE(QRegularExpression(u"^[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}$"_s)
                    .match(QString::fromLatin1(boundary)).hasMatch()) << boundary.toStdString();
    const QByteArray expected = "--" + boundary + "\r\n"
                                "Content-Disposition: form-data; name=\"file\"; filename=\"CV.PDF\"\r\n"
                                "Content-Type: application/pdf\r\n\r\n" + pdf + "\r\n"
                                "--" + boundary + "\r\n"
                                "Content-Disposition: form-data; name=\"extracted_text\"\r\n\r\n"
                                "Page one\nZo\xc3\xab\n\r\n"
                                "--" + boundary + "--\r\n";
    EXPECT_EQ(body, expected);
    EXPECT_EQ(server.requests("POST", uploadPath).last().header("Authorization"), "Bearer A1");
}

TEST_F(DocumentEndpointsTest, OtherFilesAndTextlessPdfsHaveNoTextPart)
{
    server.setRoute("POST", uploadPath, FakeBackend::Response::json(201, resumeJson));
    awaitTask(client.uploadResume(file(u"notes.txt"_s, "hello")));
    auto [body, boundary] = lastUpload();
    EXPECT_EQ(body, "--" + boundary + "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"notes.txt\"\r\n"
                    "Content-Type: text/plain\r\n\r\nhello\r\n--" + boundary + "--\r\n");
    EXPECT_TRUE(pdfText.calls.isEmpty());

    pdfText.text = std::nullopt; // a scan: images only
    awaitTask(client.uploadResume(file(u"scan.pdf"_s, "%PDF")));
    std::tie(body, boundary) = lastUpload();
    EXPECT_FALSE(body.contains("extracted_text"));
    EXPECT_TRUE(body.contains("Content-Type: application/pdf"));

    awaitTask(client.uploadResume(file(u"README"_s, "x")));
    EXPECT_TRUE(lastUpload().first.contains("Content-Type: application/octet-stream\r\n"));
    EXPECT_EQ(APIClient::contentTypeForExtension(u"jpeg"_s), u"image/jpeg"_s);
    EXPECT_EQ(APIClient::contentTypeForExtension(u"docx"_s),
              u"application/vnd.openxmlformats-officedocument.wordprocessingml.document"_s);
}

TEST_F(DocumentEndpointsTest, UploadFailuresAreServerErrorsWithoutRefresh)
{
    storeTokens(u"A1"_s, u"R1"_s);
    const auto path = file(u"cv.md"_s, "# me");
    server.setRoute("POST", uploadPath, FakeBackend::Response::json(401, "{}"));
    EXPECT_API_ERROR(client.uploadResume(path), APIError::serverError(401));
    EXPECT_EQ(server.requestCount("POST", "/api/v1/auth/refresh"), 0);
    FakeBackend::Response garbage;
    garbage.raw = QByteArray("nope\r\n\r\n");
    server.setRoute("POST", uploadPath, garbage);
    EXPECT_API_ERROR(client.uploadResume(path), APIError::serverError(500));
    server.setRoute("POST", uploadPath, FakeBackend::Response::json(200, R"({"id":"r1"})"));
    EXPECT_THROW(awaitTask(client.uploadResume(path)), DecodingError);
    EXPECT_TRUE(failures.isEmpty());

    const auto before = server.totalRequests();
    EXPECT_THROW(awaitTask(client.uploadResume(dir.filePath(u"missing.pdf"_s))), FileReadError);
    EXPECT_EQ(server.totalRequests(), before) << "nothing is sent for an unreadable file";
}

TEST_F(DocumentEndpointsTest, ListsCreateAndDelete)
{
    server.setRoute("GET", "/api/v1/resume", FakeBackend::Response::json(200, R"({"resumes":[]})"));
    EXPECT_TRUE(awaitTask(client.fetchResumes()).resumes.isEmpty());
    server.setRoute("GET", "/api/v1/resume", FakeBackend::Response::json(200, R"({"resumes":[)" + resumeJson + "]}"));
    EXPECT_EQ(awaitTask(client.fetchResumes()).resumes.first().filename, u"CV.PDF"_s);
    for (const QByteArray& bad : {QByteArray("{}"), QByteArray(R"({"resumes":{}})"), QByteArray(R"({"resumes":[1]})"),
                                  QByteArray(R"({"resumes":[{"id":"r"}]})"), QByteArray("")}) {
        server.setRoute("GET", "/api/v1/resume", FakeBackend::Response::json(200, bad));
        EXPECT_THROW(awaitTask(client.fetchResumes()), DecodingError) << bad.toStdString();
    }

    const QByteArray jd = R"({"id":"j1","title":"SRE","company":"","content":"c","createdAt":"now"})";
    server.setRoute("POST", "/api/v1/job-description", FakeBackend::Response::json(200, jd));
    const auto created = awaitTask(client.createJobDescription(u"SRE"_s, u"c"_s, std::nullopt));
    EXPECT_EQ(created.id, u"j1"_s);
    EXPECT_EQ(QJsonDocument::fromJson(server.requests("POST", "/api/v1/job-description").last().body).object(),
              (QJsonObject{{u"title"_s, u"SRE"_s}, {u"content"_s, u"c"_s}}));
    server.setRoute("POST", "/api/v1/job-description",
                    FakeBackend::Response::json(200, R"({"id":"j1","title":"SRE","content":"c","createdAt":"now"})"));
    EXPECT_THROW(awaitTask(client.createJobDescription(u"SRE"_s, u"c"_s, u"Acme"_s)), DecodingError)
        << "the answer must hold a company";
    EXPECT_EQ(QJsonDocument::fromJson(server.requests("POST", "/api/v1/job-description").last().body)
                  .object().value(u"company"_s), u"Acme"_s);

    server.setRoute("GET", "/api/v1/job-description", FakeBackend::Response::json(200, R"({"jobDescriptions":[)" + jd + "]}"));
    EXPECT_EQ(awaitTask(client.fetchJobDescriptions()).jobDescriptions.size(), 1);
    server.setRoute("DELETE", "/api/v1/resume/r1", FakeBackend::Response::json(204, ""));
    awaitTask(client.deleteResume(u"r1"_s));
    server.setRoute("DELETE", "/api/v1/job-description/j1", FakeBackend::Response::json(404, "{}"));
    EXPECT_API_ERROR(client.deleteJobDescription(u"j1"_s), APIError::serverError(404));
    EXPECT_EQ(failures.size(), 1);
}

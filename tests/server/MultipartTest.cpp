#include "Multipart.h"

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

TEST(MultipartTest, ReadsTheClientsUploadFormAndRefusesWhatItCannotReadWhole)
{
    // Byte for byte the form the program builds: a file part, then the extracted text.
    const QByteArray body =
        "--7C1E2A44-6F0B\r\nContent-Disposition: form-data; name=\"file\"; filename=\"CV.PDF\"\r\n"
        "Content-Type: application/pdf\r\n\r\n%PDF\r\n--7C1E2A44\r\n-not-a-boundary\r\n"
        "--7C1E2A44-6F0B\r\nContent-Disposition: form-data; name=\"extracted_text\"\r\n\r\n"
        "Gr\xc3\xbc\xc3\x9f"
        "e\r\n--7C1E2A44-6F0B--\r\n";
    const auto boundary = Multipart::boundaryOf("multipart/form-data; boundary=7C1E2A44-6F0B");
    ASSERT_EQ(boundary, QByteArray("7C1E2A44-6F0B"));
    const auto parts = Multipart::parse(body, *boundary);
    ASSERT_TRUE(parts);
    ASSERT_EQ(parts->size(), 2);
    const auto describe = [](const auto& part) {
        return part.name + u'|' + part.filename.value_or(u"-"_s) + u'|'
               + QString::fromLatin1(part.contentType) + u'|' + QString::fromUtf8(part.data);
    };
    EXPECT_EQ(describe((*parts)[0]),
              u"file|CV.PDF|application/pdf|%PDF\r\n--7C1E2A44\r\n-not-a-boundary"_s);
    EXPECT_EQ(describe((*parts)[1]), u"extracted_text|-||Grüße"_s);

    // Every cut of a valid body before its final boundary is refused.
    const QByteArray whole =
        "--B\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\nxyz\r\n--B--\r\n";
    ASSERT_TRUE(Multipart::parse(whole, "B"));
    for (qsizetype cut = 0; cut < whole.indexOf("--B--") + 4; ++cut)
        EXPECT_FALSE(Multipart::parse(whole.left(cut), "B")) << cut;
    EXPECT_FALSE(Multipart::parse("--B\r\nContent-Type: text/plain\r\n\r\nx\r\n--B--", "B"))
        << "a part without a name";
    for (const auto& contentType :
         {"application/json", "multipart/form-data", "multipart/form-data; boundary="})
        EXPECT_FALSE(Multipart::boundaryOf(contentType)) << contentType;
    EXPECT_EQ(Multipart::boundaryOf("Multipart/Form-Data; charset=utf-8; boundary=\"q r\""),
              QByteArray("q r"));
}

#include "Multipart.h"

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

// The program's own upload form is the whole-product test's; here, a file holding a line that
// starts like the boundary, and bodies cut short, which the multipart fuzz target cannot judge.
TEST(MultipartTest, ReadsEachPartWholeAndRefusesWhatItCannotReadWhole)
{
    const QByteArray body =
        "--7C1E-6F0B\r\nContent-Disposition: form-data; name=\"file\"; filename=\"CV.PDF\"\r\n"
        "Content-Type: application/pdf\r\n\r\n%PDF\r\n--7C1E\r\n-not-a-boundary\r\n"
        "--7C1E-6F0B\r\nContent-Disposition: form-data; name=\"extracted_text\"\r\n\r\n"
        "Gr\xc3\xbc\xc3\x9f"
        "e\r\n--7C1E-6F0B--\r\n";
    const auto parts = Multipart::parse(body, "7C1E-6F0B");
    ASSERT_TRUE(parts && parts->size() == 2);
    const auto describe = [](const auto& part) {
        return part.name + u'|' + part.filename.value_or(u"-"_s) + u'|'
               + QString::fromLatin1(part.contentType) + u'|' + QString::fromUtf8(part.data);
    };
    EXPECT_EQ(describe((*parts)[0]),
              u"file|CV.PDF|application/pdf|%PDF\r\n--7C1E\r\n-not-a-boundary"_s);
    EXPECT_EQ(describe((*parts)[1]), u"extracted_text|-||Grüße"_s);
    // Every cut of the body before its final boundary is refused.
    for (qsizetype cut = 0; cut < body.indexOf("--7C1E-6F0B--") + 13; ++cut)
        EXPECT_FALSE(Multipart::parse(body.left(cut), "7C1E-6F0B")) << cut;
    EXPECT_FALSE(Multipart::parse("--B\r\nContent-Type: text/plain\r\n\r\nx\r\n--B--", "B"))
        << "a part without a name";
    EXPECT_EQ(Multipart::boundaryOf("Multipart/Form-Data; charset=utf-8; boundary=\"q r\""),
              QByteArray("q r"));
}

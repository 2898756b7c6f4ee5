#include "QtPrinters.h"
#include "PopplerPdfTextExtractor.h"

#include <QFile>
#include <QGuiApplication>
#include <QImage>
#include <QPainter>
#include <QPdfWriter>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <functional>
#include <variant>

using namespace Qt::StringLiterals;

namespace {

struct ImagePage {};
using Page = std::variant<QString, ImagePage>; // a line of text, or a picture and no text

// A PDF drawn here: one page per entry.
void writePdf(const QString& path, const QList<Page>& pages)
{
    QPdfWriter writer(path);
    writer.setResolution(72);
    QPainter painter(&writer);
    painter.setFont(QFont(u"DejaVu Sans"_s, 14));
    for (qsizetype index = 0; index < pages.size(); ++index) {
        if (index > 0)
            writer.newPage();
        if (const auto* text = std::get_if<QString>(&pages[index])) {
            painter.drawText(QPointF(72, 100), *text);
        } else {
            QImage picture(200, 120, QImage::Format_RGB32);
            picture.fill(Qt::darkCyan);
            QPainter(&picture).fillRect(40, 30, 80, 50, Qt::yellow);
            painter.drawImage(QPointF(72, 100), picture);
        }
    }
}

} // namespace

struct Unreadable {
    const char* name;
    std::function<void(const QString& path)> make; // leaves nothing when empty
};

class PopplerPdfTextExtractorTest : public ::testing::TestWithParam<Unreadable> {
protected:
    QString path(const QString& name) const { return dir.filePath(name); }

    QTemporaryDir dir;
    PopplerPdfTextExtractor extractor;
};

TEST_F(PopplerPdfTextExtractorTest, PagesWithTextComeInOrderEachEndedByOneLineFeed)
{
    const auto file = path(u"resume.pdf"_s);
    writePdf(file, {u"Alpha experience"_s, ImagePage{}, u"Bravo education"_s});

    const auto text = extractor.extractText(file);
    ASSERT_TRUE(text);
    // Poppler decides the whitespace inside a page; what matters is order and one line feed per
    // page that has text, none for the picture.
    const auto pages = text->split(u'\n', Qt::SkipEmptyParts);
    ASSERT_EQ(pages.size(), 2) << text->toStdString();
    EXPECT_TRUE(pages[0].contains(u"Alpha experience"_s)) << text->toStdString();
    EXPECT_TRUE(pages[1].contains(u"Bravo education"_s)) << text->toStdString();
    EXPECT_TRUE(text->endsWith(u'\n'));
    EXPECT_FALSE(text->contains(u"\n\n"_s)) << "a page ended twice, or the picture once";
    EXPECT_FALSE(text->contains(u'\f')) << "a page break mark went into the text";
}

TEST_P(PopplerPdfTextExtractorTest, GivesNothing)
{
    const auto file = path(u"input.pdf"_s);
    if (GetParam().make)
        GetParam().make(file);
    EXPECT_EQ(extractor.extractText(file), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(
    Files, PopplerPdfTextExtractorTest,
    ::testing::Values(
        Unreadable{"OnlyAPicture", [](const QString& file) { writePdf(file, {ImagePage{}}); }},
        Unreadable{"NotAPdf",
                   [](const QString& file) {
                       QFile out(file);
                       ASSERT_TRUE(out.open(QIODevice::WriteOnly));
                       out.write("Plain words that only pretend to be a PDF.\n");
                   }},
        Unreadable{"MissingFile", {}}),
    [](const auto& info) { return std::string(info.param.name); });

// Drawing text needs fonts, which only a QGuiApplication provides (offscreen here).
int main(int argc, char** argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

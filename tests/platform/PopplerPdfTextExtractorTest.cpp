// The text of PDFs the test draws itself, page by page, and nothing for a file that holds none.

#include "PopplerPdfTextExtractor.h"
#include "QtPrinters.h"

#include <QFile>
#include <QGuiApplication>
#include <QPainter>
#include <QPdfWriter>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

// A PDF drawn here, one page per entry: a line of text, or for an empty entry a drawing and no
// text.
void writePdf(const QString& path, const QStringList& pages)
{
    QPdfWriter writer(path);
    writer.setResolution(72);
    QPainter painter(&writer);
    painter.setFont(QFont(u"DejaVu Sans"_s, 14));
    for (qsizetype index = 0; index < pages.size(); ++index) {
        if (index > 0)
            writer.newPage();
        if (pages[index].isEmpty())
            painter.fillRect(72, 100, 200, 120, Qt::darkCyan);
        else
            painter.drawText(QPointF(72, 100), pages[index]);
    }
}

// Each page with text, in order, ended by one line feed; nothing for a file without text.
TEST(PopplerPdfTextExtractorTest, PagesWithTextComeInOrderAndAFileWithoutTextGivesNothing)
{
    QTemporaryDir dir;
    const auto file = [&](const char* name) { return dir.filePath(QString::fromLatin1(name)); };
    writePdf(file("resume.pdf"), {u"Alpha experience"_s, QString(), u"Bravo education"_s});
    writePdf(file("drawing.pdf"), {QString()});
    QFile other(file("other.pdf"));
    ASSERT_TRUE(other.open(QIODevice::WriteOnly));
    other.write("Plain words that only pretend to be a PDF.\n");
    other.close();
    for (const auto* name : {"drawing.pdf", "other.pdf", "missing.pdf"})
        EXPECT_EQ(PopplerPdfTextExtractor().extractText(file(name)), std::nullopt) << name;

    const auto text = PopplerPdfTextExtractor().extractText(file("resume.pdf"));
    ASSERT_TRUE(text);
    // Poppler decides the whitespace inside a page; what matters is order and one line feed per
    // page that has text, none for the drawing.
    const auto pages = text->split(u'\n', Qt::SkipEmptyParts);
    ASSERT_EQ(pages.size(), 2) << text->toStdString();
    EXPECT_TRUE(pages[0].contains(u"Alpha experience"_s)) << text->toStdString();
    EXPECT_TRUE(pages[1].contains(u"Bravo education"_s)) << text->toStdString();
    EXPECT_TRUE(text->endsWith(u'\n'));
    EXPECT_FALSE(text->contains(u"\n\n"_s)) << "a page ended twice, or the drawing once";
    EXPECT_FALSE(text->contains(u'\f')) << "a page break mark went into the text";
}

} // namespace

// Drawing text needs fonts, which only a QGuiApplication provides (offscreen here).
int main(int argc, char** argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

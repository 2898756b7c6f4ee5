#include "PopplerPdfTextExtractor.h"

#include <QFile>

#include <poppler-document.h>
#include <poppler-global.h>
#include <poppler-page.h>

#include <memory>

namespace {
void ignorePopplerMessage(const std::string&, void*) {}
} // namespace

PopplerPdfTextExtractor::PopplerPdfTextExtractor()
{
    // Poppler reports every damaged or foreign file on standard error; such a file simply has
    // no text for us, and those lines would clutter the program's log.
    static const bool silenced = [] {
        poppler::set_debug_error_function(ignorePopplerMessage, nullptr);
        return true;
    }();
    Q_UNUSED(silenced);
}

std::optional<QString> PopplerPdfTextExtractor::extractText(const QString& path)
{
    const std::unique_ptr<poppler::document> document(
        poppler::document::load_from_file(QFile::encodeName(path).toStdString()));
    if (!document || document->is_locked())
        return std::nullopt;

    QString text;
    const int pageCount = document->pages();
    for (int index = 0; index < pageCount; ++index) {
        const std::unique_ptr<poppler::page> page(document->create_page(index));
        if (!page)
            continue;
        const auto utf8 = page->text().to_utf8();
        auto pageText = QString::fromUtf8(utf8.data(), static_cast<qsizetype>(utf8.size()));
        // Poppler ends each line with a line feed and each page with a form feed; neither is
        // the page's text. A page of pictures only (a scan) is nothing but those marks.
        while (pageText.endsWith(u'\f') || pageText.endsWith(u'\n') || pageText.endsWith(u'\r'))
            pageText.chop(1);
        if (pageText.trimmed().isEmpty())
            continue;
        text += pageText;
        text += u'\n';
    }
    if (text.isEmpty())
        return std::nullopt;
    return text;
}

#pragma once

#include <QString>

#include <optional>

// Text of a PDF file for a resume upload. Each page's text is followed by one line feed; a
// page without text is skipped. Nothing when the file can't be opened or holds no text at all
// (a scanned document), in which case the upload goes on without the text.
class PdfTextExtractor {
public:
    virtual ~PdfTextExtractor() = default;
    virtual std::optional<QString> extractText(const QString& path) = 0;
};

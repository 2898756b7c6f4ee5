#pragma once

#include "PdfTextExtractor.h"

// PDF text through poppler-cpp.
class PopplerPdfTextExtractor final : public PdfTextExtractor {
public:
    PopplerPdfTextExtractor();

    std::optional<QString> extractText(const QString& path) override;
};

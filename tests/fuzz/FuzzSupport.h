#pragma once

// Shared by the fuzz targets: one Qt application for the whole run, checks that abort with a
// message libFuzzer reports as a crash, a reader of the fuzzer's bytes, and the entry point.

#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QString>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Fuzz {

inline void ensureApplication()
{
    if (QCoreApplication::instance())
        return;
    static int argc = 1;
    static char name[] = "fuzz";
    static char* argv[] = {name, nullptr};
    new QCoreApplication(argc, argv); // lives for the whole run
}

// An invariant of the product that does not hold: a finding, reported as a crash.
[[noreturn]] inline void fail(const char* what, const QString& detail = {})
{
    std::fprintf(stderr, "invariant broken: %s %s\n", what, qPrintable(detail));
    std::abort();
}

inline void check(bool holds, const char* what, const QString& detail = {})
{
    if (!holds)
        fail(what, detail);
}

// Text that survives a trip through UTF-8 unchanged: no lone surrogates, which a JSON body
// or a database column would turn into something else.
inline bool isValidUnicode(const QString& text)
{
    // Every surrogate in its pair. (A round trip through UTF-8 cannot judge: QString::fromUtf8
    // drops a leading U+FEFF.)
    for (qsizetype i = 0; i < text.size(); ++i) {
        if (text[i].isHighSurrogate() && i + 1 < text.size() && text[i + 1].isLowSurrogate())
            ++i;
        else if (text[i].isSurrogate())
            return false;
    }
    return true;
}

// Consumes the input from the front: a byte of choices, then the rest as data.
class Input {
public:
    Input(const uint8_t* data, size_t size)
        : m_data(data)
        , m_size(size)
    {
    }

    uint8_t takeByte()
    {
        if (m_size == 0)
            return 0;
        --m_size;
        return *m_data++;
    }
    QByteArray rest() const
    {
        return QByteArray(reinterpret_cast<const char*>(m_data), qsizetype(m_size));
    }
    QList<QByteArray> restLines() const { return rest().split('\n'); }

private:
    const uint8_t* m_data;
    size_t m_size;
};

// The object a JSON text holds; empty for anything else.
inline QJsonObject object(const QByteArray& json)
{
    return QJsonDocument::fromJson(json).object();
}

} // namespace Fuzz

// Defines libFuzzer's entry point around a body that reads the input from `input`, once the
// application exists.
#define FUZZ_TARGET(input)                                                                         \
    static void fuzzOne(Fuzz::Input& input);                                                       \
    extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)                        \
    {                                                                                              \
        Fuzz::ensureApplication();                                                                 \
        Fuzz::Input whole(data, size);                                                             \
        fuzzOne(whole);                                                                            \
        return 0;                                                                                  \
    }                                                                                              \
    static void fuzzOne(Fuzz::Input& input)

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

namespace Fuzz {

// An invariant of the product that does not hold: a finding, reported as a crash.
inline void check(bool holds, const char* what, const QString& detail = {})
{
    if (holds)
        return;
    std::fprintf(stderr, "invariant broken: %s %s\n", what, qPrintable(detail));
    std::abort();
}

// Text that survives a trip through UTF-8 unchanged: every surrogate in its pair, or a JSON body
// or a database column would turn it into something else.
inline void checkText(const QString& text, const char* what)
{
    check(text.isValidUtf16(), what, text);
}

// Takes a byte of choices from the front of the input; the rest is data.
inline uint8_t takeByte(QByteArray& input)
{
    const uint8_t byte = input.isEmpty() ? 0 : uint8_t(input.front());
    input.remove(0, 1);
    return byte;
}

// The object a JSON text holds; empty for anything else.
inline QJsonObject object(const QByteArray& json)
{
    return QJsonDocument::fromJson(json).object();
}

} // namespace Fuzz

// Defines libFuzzer's entry point around a body that reads the input's bytes from `input`, once the
// one application of the run exists (never destroyed: the targets' own statics outlive it).
#define FUZZ_TARGET(input)                                                                         \
    static void fuzzOne(QByteArray& input);                                                        \
    extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)                        \
    {                                                                                              \
        static int argc = 1;                                                                       \
        static char name[] = "fuzz";                                                               \
        static char* argv[] = {name, nullptr};                                                     \
        [[maybe_unused]] static auto* application = new QCoreApplication(argc, argv);              \
        QByteArray whole(reinterpret_cast<const char*>(data), qsizetype(size));                    \
        fuzzOne(whole);                                                                            \
        return 0;                                                                                  \
    }                                                                                              \
    static void fuzzOne(QByteArray& input)

// The server's multipart reader: any bytes as a body, with a boundary taken from the first line.
#include "FuzzSupport.h"
#include "Multipart.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray input(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    const auto newline = input.indexOf('\n');
    const auto contentType =
        "multipart/form-data; boundary=" + (newline < 0 ? input : input.left(newline));
    const auto body = newline < 0 ? QByteArray() : input.mid(newline + 1);
    if (const auto boundary = Multipart::boundaryOf(contentType)) {
        if (const auto parts = Multipart::parse(body, *boundary)) {
            for (const auto& part : *parts) {
                // Every part lies inside the body it came from.
                Fuzz::check(part.data.size() <= body.size(),
                            "a part larger than the body it came from");
            }
        }
    }
    return 0;
}

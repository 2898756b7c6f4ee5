// The server's multipart reader: any bytes as a body, with a boundary taken from the first line.
#include "FuzzSupport.h"
#include "Multipart.h"

FUZZ_TARGET(bytes)
{
    const auto newline = bytes.indexOf('\n');
    const auto contentType =
        "multipart/form-data; boundary=" + (newline < 0 ? bytes : bytes.left(newline));
    const auto body = newline < 0 ? QByteArray() : bytes.mid(newline + 1);
    if (const auto boundary = Multipart::boundaryOf(contentType)) {
        if (const auto parts = Multipart::parse(body, *boundary)) {
            for (const auto& part : *parts) {
                // Every part lies inside the body it came from.
                Fuzz::check(part.data.size() <= body.size(),
                            "a part larger than the body it came from");
            }
        }
    }
}

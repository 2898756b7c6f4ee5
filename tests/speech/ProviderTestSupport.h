#pragma once

#include "AwaitTask.h"
#include "QtPrinters.h"
#include "Clock.h"
#include "FakeVendorServer.h"
#include "SpeechRecognitionProvider.h"

#include <QTest>

#include <gtest/gtest.h>

// A recogniser of type `Provider` against a fake vendor on loopback, on a manual clock.
template<typename Provider>
class ProviderTest : public ::testing::Test {
protected:
    using Speaker = TranscriptEntry::Speaker;

    explicit ProviderTest(Speaker speaker, QStringList subprotocols = {})
        : server(std::move(subprotocols)), provider(speaker, clock, server.origin())
    {
    }

    // Waits for `count` segments, then takes all that have arrived.
    QList<TranscriptSegment> segmentsAfter(int count)
    {
        const auto stream = provider.transcriptSegments();
        EXPECT_TRUE(QTest::qWaitFor([&] { return stream->bufferedCount() >= std::size_t(count); }, 10'000));
        QTest::qWait(20); // and nothing more
        QList<TranscriptSegment> segments;
        while (auto segment = stream->tryNext())
            segments.append(*segment);
        return segments;
    }

    QStringList reasonsAfter(int count)
    {
        const auto stream = provider.recoveryEvents();
        EXPECT_TRUE(QTest::qWaitFor([&] { return stream->bufferedCount() >= std::size_t(count); }, 10'000));
        QTest::qWait(20);
        QStringList reasons;
        while (auto event = stream->tryNext()) {
            EXPECT_TRUE(event->countsTowardLimit);
            reasons.append(event->reason);
        }
        return reasons;
    }

    // "F:" for a final segment, "P:" for a partial, then the text.
    static QStringList texts(const QList<TranscriptSegment>& segments)
    {
        QStringList result;
        for (const auto& segment : segments)
            result.append((segment.isFinal ? QStringLiteral("F:") : QStringLiteral("P:")) + segment.text);
        return result;
    }

    FakeVendorServer server;
    ManualClock clock;
    Provider provider;
    std::shared_ptr<AudioStream> audio = std::make_shared<AudioStream>();
    int expectedConnections = 0;
};

// The offline answer engine on a two-page resume and a one-page job description: time to the
// first chunk and to the whole answer, alone and with 200 interviews asking at once.
#include "OfflineAnswerEngine.h"
#include "OfflineDraft.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <vector>

using namespace ravlet::server;

namespace {

// About 900 words: five roles of seven bullets, a summary, education and skills.
QString twoPageResume()
{
    QString text = QStringLiteral("Alex Morgan\nalex.morgan@example.com | +1 555 0100\n\nSUMMARY\n"
                                  "Platform engineer with 12 years of experience in distributed "
                                  "systems, payments and developer tooling.\n\nEXPERIENCE\n");
    const char* const roles[] = {
        "Principal Engineer, Northwind Payments, Seattle (2021–2024)",
        "Staff Engineer, Contoso Cloud, Portland (2018–2021)",
        "Senior Software Engineer, Fabrikam Logistics, Denver (2015–2018)",
        "Software Engineer, Tailspin Media, Austin (2013–2015)",
        "Junior Developer, Litware Labs, Boston (2012–2013)",
    };
    const char* const bullets[] = {
        "Led the migration of the settlement service from a monolith to Kubernetes, cutting "
        "deploy time from 3 hours to 12 minutes.",
        "Designed an event-sourced ledger in Go handling 8,000 writes per second with exactly-once "
        "delivery through Kafka.",
        "Mentored six engineers; three were promoted to senior within eighteen months.",
        "Resolved a long-running disagreement between the risk and product teams by introducing a "
        "shared quarterly planning review.",
        "Reduced cloud spend by 35% by right-sizing PostgreSQL clusters and moving batch jobs to "
        "spot instances.",
        "Built an on-call handbook and incident review process that halved the mean time to "
        "recovery.",
        "Introduced contract tests between 14 services, which caught 40 breaking changes before "
        "release in the first quarter.",
    };
    for (const char* role : roles) {
        text += QString::fromUtf8(role) + u'\n';
        for (const char* bullet : bullets)
            text += QStringLiteral("• ") + QString::fromUtf8(bullet) + u'\n';
        text += u'\n';
    }
    text +=
        QStringLiteral("EDUCATION\nMSc Computer Science, University of Washington (2010–2012)\n\n"
                       "SKILLS\nGo, Rust, C++, PostgreSQL, Kafka, Kubernetes, Terraform, AWS, "
                       "GCP, gRPC, Prometheus\n");
    return text;
}

// About 400 words.
QString onePageJobDescription()
{
    return QStringLiteral(
        "Senior Platform Engineer at Adventure Works\nAbout the role\n"
        "We are looking for a senior engineer to lead the next generation of our payments "
        "platform. "
        "You will own the reliability of services that move billions of dollars a year, and work "
        "closely with product, risk and finance. Our stack is Go and PostgreSQL on Kubernetes, "
        "with Kafka for events. You will shape our migration from a shared database to service-"
        "owned stores, set standards for observability, and mentor engineers across three teams.\n"
        "What you will do:\n"
        "- Design and build high-throughput, fault-tolerant services.\n"
        "- Lead incident reviews and drive the follow-up work to completion.\n"
        "- Improve deployment pipelines and developer tooling.\n"
        "- Partner with product managers to turn ambiguous problems into plans.\n"
        "- Review designs and code, and raise the bar for the whole organisation.\n"
        "Requirements:\n"
        "- 8+ years building distributed backend systems in production.\n"
        "- Deep experience with PostgreSQL, including performance tuning and migrations.\n"
        "- Experience running services on Kubernetes at scale.\n"
        "- A track record of mentoring engineers and leading cross-team projects.\n"
        "- Clear written and spoken communication.\n"
        "Nice to have:\n"
        "- Experience with payments, ledgers or other financial systems.\n"
        "- Familiarity with Rust or WebAssembly.\n"
        "- Contributions to open-source infrastructure projects.\n"
        "We offer a hybrid schedule, a learning budget and generous parental leave.\n");
}

AnswerRequest benchRequest(const char* question)
{
    static const QString resume = twoPageResume();
    static const QString job = onePageJobDescription();
    AnswerRequest request;
    request.question = QString::fromUtf8(question);
    request.recentTranscript = {QStringLiteral("Interviewer: Thanks for making the time today."),
                                QStringLiteral("You: Thank you for having me.")};
    request.resumeText = resume;
    request.jobDescriptionText = job;
    return request;
}

const char* const questions[] = {
    "Tell me about a time you resolved a disagreement between teams.",
    "Tell me about yourself.",
    "Why do you want this role?",
    "What is your greatest weakness?",
    "How would you tune a slow PostgreSQL query?",
};

void processUntil(const bool& condition)
{
    while (!condition)
        QCoreApplication::processEvents(QEventLoop::AllEvents);
}

// Building the draft alone, by kind of question.
void BM_Draft(benchmark::State& state)
{
    const auto request = benchRequest(questions[state.range(0)]);
    for (auto _ : state)
        benchmark::DoNotOptimize(draftAnswer(request));
    state.SetLabel(questions[state.range(0)]);
}
BENCHMARK(BM_Draft)->DenseRange(0, 4)->Unit(benchmark::kMicrosecond);

// From the call to the first chunk in the caller's hands, and to the end of the answer.
void BM_OfflineAnswer(benchmark::State& state)
{
    OfflineAnswerEngine engine;
    const auto request = benchRequest(questions[0]);
    std::vector<double> firstChunkUs;
    for (auto _ : state) {
        QElapsedTimer timer;
        bool first = false;
        bool done = false;
        timer.start();
        engine.answer(
            request,
            [&](const QString&) {
                if (!first)
                    firstChunkUs.push_back(double(timer.nsecsElapsed()) / 1000.0);
                first = true;
            },
            [&](const QString&) { done = true; });
        processUntil(done);
    }
    std::sort(firstChunkUs.begin(), firstChunkUs.end());
    state.counters["first_chunk_p50_us"] = firstChunkUs[firstChunkUs.size() / 2];
    state.counters["first_chunk_p99_us"] = firstChunkUs[firstChunkUs.size() * 99 / 100];
}
BENCHMARK(BM_OfflineAnswer)->Unit(benchmark::kMicrosecond);

// 200 interviews ask at the same moment on one thread: the slowest first chunk and the time
// until every answer has ended.
void BM_Offline200AtOnce(benchmark::State& state)
{
    constexpr int interviews = 200;
    OfflineAnswerEngine engine;
    std::vector<AnswerRequest> requests;
    for (int i = 0; i < interviews; ++i)
        requests.push_back(benchRequest(questions[i % std::size(questions)]));
    const bool distinctUsers = state.range(0) == 1;
    int round = 0;
    double slowestFirstMs = 0;
    for (auto _ : state) {
        if (distinctUsers) {
            // Every interview's documents are new to the server: each is cut and indexed
            // during the burst, the worst case of a server that has just started.
            state.PauseTiming();
            ++round;
            for (int i = 0; i < interviews; ++i) {
                const auto tag = QStringLiteral("\nUser %1 of round %2.").arg(i).arg(round);
                requests[i].resumeText = twoPageResume() + tag;
                requests[i].jobDescriptionText = onePageJobDescription() + tag;
            }
            state.ResumeTiming();
        }
        QElapsedTimer timer;
        int firsts = 0;
        int done = 0;
        std::vector<bool> seen(interviews, false);
        timer.start();
        for (int i = 0; i < interviews; ++i) {
            engine.answer(
                requests[i],
                [&, i](const QString&) {
                    if (!seen[i]) {
                        seen[i] = true;
                        if (++firsts == interviews)
                            slowestFirstMs =
                                std::max(slowestFirstMs, double(timer.nsecsElapsed()) / 1e6);
                    }
                },
                [&](const QString&) { ++done; });
        }
        while (done < interviews)
            QCoreApplication::processEvents(QEventLoop::AllEvents);
    }
    state.counters["slowest_first_chunk_ms"] = slowestFirstMs;
}
// 0: the interviews' documents were seen before (each interview's later answers); 1: 200
// users whose documents the server has not indexed yet.
BENCHMARK(BM_Offline200AtOnce)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

} // namespace

#include "OfflineAnswerEngine.h"

#include "OfflineDraft.h"

#include <QFutureWatcher>
#include <QObject>
#include <QPointer>

#include <memory>

namespace ravlet::server {

namespace {

struct Delivery {
    QStringList chunks;
    qsizetype next = 0;
    bool cancelled = false;
    std::function<void(const QString&)> onChunk;
    std::function<void(const QString&)> onDone;
    // Lives on the caller's thread; its posted calls go when it is deleted.
    QPointer<QObject> context;
};

void postNext(const std::shared_ptr<Delivery>& delivery);

void deliverNext(const std::shared_ptr<Delivery>& delivery)
{
    if (delivery->cancelled)
        return;
    if (delivery->next < delivery->chunks.size()) {
        delivery->onChunk(delivery->chunks.at(delivery->next++));
        if (!delivery->cancelled)
            postNext(delivery);
        return;
    }
    delivery->cancelled = true; // nothing more to say, and cancel becomes a no-op
    delivery->context->deleteLater();
    delivery->onDone(QString());
}

// One chunk per turn of the event loop: other interviews' work runs in between.
void postNext(const std::shared_ptr<Delivery>& delivery)
{
    QMetaObject::invokeMethod(
        delivery->context.data(), [delivery] { deliverNext(delivery); }, Qt::QueuedConnection);
}

} // namespace

AnswerEngine::Handle OfflineAnswerEngine::answer(const AnswerRequest& request,
                                                 std::function<void(const QString& chunk)> onChunk,
                                                 std::function<void(const QString& error)> onDone)
{
    auto delivery = std::make_shared<Delivery>();
    delivery->onChunk = std::move(onChunk);
    delivery->onDone = std::move(onDone);
    delivery->context = new QObject;
    // Drafted on a worker; the watcher belongs to the context, so a cancelled answer (whose
    // context is deleted) never hears of its draft.
    auto* watcher = new QFutureWatcher<QStringList>(delivery->context.data());
    QObject::connect(watcher, &QFutureWatcherBase::finished, watcher, [delivery, watcher] {
        const auto lines = watcher->result();
        for (qsizetype i = 0; i < lines.size(); ++i)
            delivery->chunks << (i + 1 < lines.size() ? lines.at(i) + u'\n' : lines.at(i));
        deliverNext(delivery);
    });
    watcher->setFuture(draftAnswerInBackground(request));

    std::weak_ptr<Delivery> weak = delivery;
    return {[weak] {
        const auto delivery = weak.lock();
        if (!delivery || delivery->cancelled)
            return;
        delivery->cancelled = true;
        if (delivery->context)
            delivery->context->deleteLater();
    }};
}

} // namespace ravlet::server

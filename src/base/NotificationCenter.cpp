#include "NotificationCenter.h"

#include <vector>

NotificationCenter& NotificationCenter::defaultCenter()
{
    static NotificationCenter center;
    return center;
}

NotificationCenter::ObserverId NotificationCenter::addObserver(const QString& name,
                                                               const QObject* context,
                                                               Handler handler)
{
    const auto id = m_nextId++;
    m_observers.emplace(id, Observer{name, context, context != nullptr, std::move(handler)});
    return id;
}

void NotificationCenter::removeObserver(ObserverId id)
{
    m_observers.erase(id);
}

void NotificationCenter::removeObservers(const QObject* context)
{
    std::erase_if(m_observers, [context](const auto& entry) {
        return entry.second.hasContext && entry.second.context == context;
    });
}

void NotificationCenter::post(const QString& name, QVariant object, QVariantMap userInfo)
{
    const Notification notification{name, std::move(object), std::move(userInfo)};
    // Observers may add or remove observers while they run: walk ids, not iterators, and
    // skip anything removed in the meantime. Observers added during this post are not called.
    std::vector<ObserverId> ids;
    for (const auto& [id, observer] : m_observers) {
        if (observer.name == name)
            ids.push_back(id);
    }
    for (const auto id : ids) {
        const auto it = m_observers.find(id);
        if (it == m_observers.end())
            continue;
        if (it->second.hasContext && !it->second.context) {
            m_observers.erase(it);
            continue;
        }
        // Copy: the handler may remove its own observer.
        const auto handler = it->second.handler;
        handler(notification);
    }
}

std::size_t NotificationCenter::observerCount(const QString& name) const
{
    std::size_t count = 0;
    for (const auto& [id, observer] : m_observers) {
        if (observer.name == name && (!observer.hasContext || observer.context))
            ++count;
    }
    return count;
}

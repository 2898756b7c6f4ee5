#include "KeySource.h"

#include <utility>
#include <vector>

struct KeySource::Subscription::Observers {
    KeySource* source = nullptr;
    std::map<int, std::shared_ptr<KeyHandler>> handlers;
    int nextId = 1;
};

KeySource::Subscription::Subscription(Subscription&& other) noexcept
    : m_observers(std::move(other.m_observers))
    , m_id(std::exchange(other.m_id, 0))
{
}

KeySource::Subscription& KeySource::Subscription::operator=(Subscription&& other) noexcept
{
    if (this != &other) {
        reset();
        m_observers = std::move(other.m_observers);
        m_id = std::exchange(other.m_id, 0);
    }
    return *this;
}

KeySource::Subscription::~Subscription()
{
    reset();
}

void KeySource::Subscription::reset()
{
    const auto observers = m_observers.lock();
    m_observers.reset();
    if (!observers || observers->handlers.erase(std::exchange(m_id, 0)) == 0)
        return;
    if (observers->handlers.empty() && observers->source)
        observers->source->setObserving(false);
}

bool KeySource::Subscription::isActive() const
{
    const auto observers = m_observers.lock();
    return observers && observers->handlers.contains(m_id);
}

KeySource::KeySource()
    : m_observers(std::make_shared<Subscription::Observers>())
{
    m_observers->source = this;
}

KeySource::~KeySource()
{
    // Subscriptions that outlive the source find nothing to remove.
    m_observers->source = nullptr;
}

KeySource::Subscription KeySource::observeKeys(KeyHandler handler)
{
    if (!handler)
        return {};
    const int id = m_observers->nextId++;
    const bool first = m_observers->handlers.empty();
    m_observers->handlers.emplace(id, std::make_shared<KeyHandler>(std::move(handler)));
    if (first)
        setObserving(true);
    return Subscription(m_observers, id);
}

bool KeySource::isObserving() const
{
    return !m_observers->handlers.empty();
}

void KeySource::deliverKey(quint16 keyCode, bool pressed)
{
    // A handler may subscribe or unsubscribe others (recording ends on a key): go over a copy,
    // and skip the ones removed on the way.
    std::vector<std::pair<int, std::shared_ptr<KeyHandler>>> current(m_observers->handlers.begin(),
                                                                     m_observers->handlers.end());
    const auto observers = m_observers;
    for (const auto& [id, handler] : current) {
        if (observers->handlers.contains(id))
            (*handler)(keyCode, pressed);
    }
}

#pragma once

#include <QtGlobal>

#include <functional>
#include <map>
#include <memory>
#include <optional>

// Where keys come from on this desktop. Codes are the canonical codes of the settings tables.
// Any number of readers observe the keys at once (the trigger monitors, key recording, the
// key test); the desktop is asked to report keys only while at least one is listening.
class KeySource {
public:
    using KeyHandler = std::function<void(quint16 keyCode, bool pressed)>;
    using ArrowHandler = std::function<void(quint16 keyCode)>;

    // Keys reach the handler until this is destroyed or reset. Safe to outlive the source.
    class Subscription {
    public:
        Subscription() = default;
        Subscription(Subscription&& other) noexcept;
        Subscription& operator=(Subscription&& other) noexcept;
        ~Subscription();
        void reset();
        bool isActive() const;

    private:
        friend class KeySource;
        struct Observers;
        Subscription(std::weak_ptr<Observers> observers, int id)
            : m_observers(std::move(observers))
            , m_id(id)
        {
        }
        std::weak_ptr<Observers> m_observers;
        int m_id = 0;
    };

    KeySource();
    virtual ~KeySource();
    KeySource(const KeySource&) = delete;
    KeySource& operator=(const KeySource&) = delete;

    // Whether keys pressed in other programs can be seen. When not, observers see only the
    // keys typed into this program's own windows, and grabArrows does nothing.
    virtual bool seesOtherPrograms() const = 0;
    // The code of a key typed into one of this program's windows (Qt's native virtual key),
    // read through the same table as the keys of other programs.
    virtual std::optional<quint16> localKeyCode(quint32 nativeVirtualKey) const = 0;
    // Every press and release, observed and never swallowed.
    [[nodiscard]] Subscription observeKeys(KeyHandler handler);
    // Takes the four arrow keys from every program, each press (repeats included) going to the
    // handler, until releaseArrows.
    virtual void grabArrows(ArrowHandler handler) = 0;
    virtual void releaseArrows() = 0;

protected:
    // Starts or stops the desktop's reporting of keys; called as the first observer comes and
    // the last one goes.
    virtual void setObserving(bool observing) = 0;
    bool isObserving() const;
    // Hands a key to every observer, in the order they subscribed.
    void deliverKey(quint16 keyCode, bool pressed);

private:
    std::shared_ptr<Subscription::Observers> m_observers;
};

#pragma once

#include "KeySource.h"
#include "X11KeyTable.h"

#include <QList>

// Keys the test types as other programs' keys; our own windows' keys go through the real keysym
// table. It records when the desktop would be asked to report keys.
class TypedKeySource final : public KeySource {
public:
    bool seesOtherPrograms() const override { return true; }
    std::optional<quint16> localKeyCode(quint32 keysym) const override
    {
        return canonicalKeyCode(keysym);
    }
    void grabArrows(ArrowHandler) override {}
    void releaseArrows() override {}
    void type(quint16 code, bool pressed = true) { deliverKey(code, pressed); }
    void typeKeysym(quint32 keysym, bool pressed)
    {
        deliverKey(*canonicalKeyCode(keysym), pressed);
    }
    QList<bool> observing;

protected:
    void setObserving(bool on) override { observing.append(on); }
};

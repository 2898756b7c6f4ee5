#pragma once

#include <QList>
#include <QStringList>
#include <QUrl>

#include <optional>

// What a desktop binds to a command where it cannot hand keys to us: each does what its key
// does in the running program.
enum class KeyAction {
    trigger,
    previousAnswer,
    nextAnswer,
    selectUp,
    selectDown,
    toggleOverlay,
};

// What a later start of the program asks of the running one, read from its arguments. The first
// option wins; addresses count only when no option is given.
struct LaunchArguments {
    enum class Action {
        quit,
        showDashboard,
        showOverlay,
        openUrls,
        keyAction,
    };

    Action action = Action::showDashboard;
    // For openUrls: every argument that is an absolute address, in order.
    QList<QUrl> urls;
    // For keyAction.
    KeyAction keyAction = KeyAction::trigger;

    static LaunchArguments parse(const QStringList& arguments);
    // The key action among the arguments, if any: such a start only ever talks to a running
    // program and never becomes one itself.
    static std::optional<KeyAction> findKeyAction(const QStringList& arguments);
    // The option that asks for `action` ("--trigger").
    static QString optionOf(KeyAction action);
};

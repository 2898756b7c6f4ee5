#pragma once

#include <QByteArray>
#include <QString>

#include <optional>
#include <string>

// The private Secret Service that scripts/test-keyring.sh starts for CTest (fixture "Keyring");
// RAVLET_KEYRING_STATE names its state file. Tests must never reach the session's real keyring.
namespace PrivateKeyring {

// Points this process at the private bus; call before anything talks D-Bus. Returns why the
// keyring tests can't run here (missing tools), or nothing when they can. Without the state file
// it throws: running against the session's keyring is never an option.
std::optional<std::string> attach();

// How QtKeychain keeps an item's bytes: binary data base64-encoded (what we write), text as is.
enum class Form { Base64, PlainText };

// Stores `bytes` under `key` with secret-tool, bypassing our code.
bool storeRawItem(const QString& key, const QByteArray& bytes, Form form = Form::Base64);

} // namespace PrivateKeyring

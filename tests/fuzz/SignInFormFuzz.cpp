// The sign-in page's reading of its posted form. The first byte picks whether the rest is a raw
// body, or six values that are encoded here as a browser encodes a form: those must come back
// exactly, or a password with a "+" or a "%" in it would not sign in.
#include "FuzzSupport.h"
#include "LoginPage.h"

namespace {

// Every field is real text, whatever the body held.
QStringList fieldsOf(const LoginPage::Submission& form)
{
    const QStringList fields{form.state,   form.email, form.password,
                             form.confirm, form.csrf,  form.action};
    for (const auto& value : fields)
        Fuzz::checkText(value, "a form field that is not valid Unicode");
    return fields;
}

} // namespace

FUZZ_TARGET(input)
{
    const auto choice = Fuzz::takeByte(input);
    const auto rest = input;
    if ((choice & 1) == 0) {
        fieldsOf(LoginPage::readForm(rest));
        return;
    }
    auto sent = QString::fromUtf8(rest).split(QChar(0));
    sent.resize(6);
    static const char* const names[] = {"state", "email", "password", "confirm", "csrf", "action"};
    // The browser sends the fields in the page's order; the second byte rotates it, and an
    // unknown field may come along. A value goes as UTF-8, a space as "+", and every byte but
    // letters, digits and "*-._" percent-encoded.
    const auto shift = Fuzz::takeByte(input) % 6;
    QByteArrayList pairs;
    for (int i = 0; i < 6; ++i) {
        const auto field = (i + shift) % 6;
        pairs.append(QByteArray(names[field]) + '='
                     + sent[field].toUtf8().toPercentEncoding(" *", "~").replace(' ', '+'));
    }
    if (choice & 2)
        pairs.append("submit=Sign+in");
    const auto read = fieldsOf(LoginPage::readForm(pairs.join('&')));
    Fuzz::check(read == sent, "a form field that does not read back as the browser sent it",
                read.join(u'|'));
}

// The sign-in page's reading of its posted form. The first byte picks whether the rest is a raw
// body, or six values that are encoded here as a browser encodes a form: those must come back
// exactly, or a password with a "+" or a "%" in it would not sign in.
#include "FuzzSupport.h"
#include "LoginPage.h"

using namespace Qt::StringLiterals;

namespace {

// application/x-www-form-urlencoded as browsers write it: UTF-8, a space as "+", and every byte
// but letters, digits and "*-._" percent-encoded.
QByteArray formEncoded(const QString& value)
{
    return value.toUtf8().toPercentEncoding(" *", "~").replace(' ', '+');
}

void checkFields(const LoginPage::Submission& form)
{
    for (const auto& value :
         {form.state, form.email, form.password, form.confirm, form.csrf, form.action})
        Fuzz::check(Fuzz::isValidUnicode(value), "a form field that is not valid Unicode", value);
}

} // namespace

FUZZ_TARGET(input)
{
    const auto choice = input.takeByte();
    const auto rest = input.rest();
    if ((choice & 1) == 0) {
        checkFields(LoginPage::readForm(rest));
        return;
    }
    auto values = QString::fromUtf8(rest).split(QChar(0));
    values.resize(6);
    const LoginPage::Submission sent{values[0], values[1], values[2],
                                     values[3], values[4], values[5]};
    const QList<std::pair<const char*, QString>> fields{
        {"state", sent.state},     {"email", sent.email}, {"password", sent.password},
        {"confirm", sent.confirm}, {"csrf", sent.csrf},   {"action", sent.action}};
    QByteArrayList pairs;
    // The browser sends the fields in the page's order; the second byte rotates it, and an
    // unknown field may come along.
    const auto shift = qsizetype(input.takeByte() % 6);
    for (qsizetype i = 0; i < fields.size(); ++i) {
        const auto& [name, value] = fields[(i + shift) % fields.size()];
        pairs.append(QByteArray(name) + '=' + formEncoded(value));
    }
    if (choice & 2)
        pairs.append("submit=Sign+in");
    const auto read = LoginPage::readForm(pairs.join('&'));
    checkFields(read);
    const QList<QString> got{read.state,   read.email, read.password,
                             read.confirm, read.csrf,  read.action};
    for (qsizetype i = 0; i < fields.size(); ++i)
        Fuzz::check(got[i] == fields[i].second,
                    "a form field that does not read back as the browser sent it",
                    QString::fromLatin1(fields[i].first) + u": sent "_s + fields[i].second
                        + u", read "_s + got[i]);
}

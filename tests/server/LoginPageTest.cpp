#include "LoginPage.h"

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

// The form as browsers encode it: "+" for a space, everything else outside letters, digits and
// "*-._" percent-encoded as UTF-8.
TEST(LoginPageTest, ReadsTheFormAsTheBrowserEncodedIt)
{
    const auto form = LoginPage::readForm(
        "state=s-1&email=a%40example.com&password=p%2Bss+w%25rd%26%3D&confirm=%EF%BF%BF%E5%AF%86"
        "&csrf=%EF%BB%BFt0k&action=register&email=second%40example.com&submit");
    EXPECT_EQ(form.state, u"s-1"_s);
    EXPECT_EQ(form.email, u"a@example.com"_s) << "of a name given twice, the first counts";
    EXPECT_EQ(form.password, u"p+ss w%rd&="_s);
    // U+FFFF, which Qt's URL decoding leaves percent-encoded, is a character like any other.
    EXPECT_EQ(form.confirm, u"\uFFFF\u5BC6"_s);
    // So is a leading U+FEFF, which a plain UTF-8 read would drop.
    EXPECT_EQ(form.csrf, u"\uFEFFt0k"_s);
    EXPECT_EQ(form.action, u"register"_s);
}

TEST(LoginPageTest, MissingAndMalformedFieldsReadAsText)
{
    const auto form = LoginPage::readForm("email=%zz%4&password=%FF&&=x&state");
    EXPECT_EQ(form.email, u"%zz%4"_s);
    EXPECT_EQ(form.password, u"\uFFFD"_s);
    EXPECT_EQ(form.state, QString());
    EXPECT_EQ(form.action, QString());
}

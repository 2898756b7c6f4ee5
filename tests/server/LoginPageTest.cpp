#include "LoginPage.h"

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

// The form as browsers encode it: "+" for a space, everything else outside letters, digits and
// "*-._" percent-encoded as UTF-8. (Round trips of any value are the sign-in form fuzz target's.)
TEST(LoginPageTest, ReadsTheFormAsTheBrowserEncodedItAndMalformedFieldsAsText)
{
    const auto form =
        LoginPage::readForm("state=s-1&email=a%40example.com&password=p%2Bss+w%25rd%26%3D"
                            "&confirm=%FF&csrf=%zz%4&email=second%40example.com&&=x&submit");
    EXPECT_EQ(form.state, u"s-1"_s);
    EXPECT_EQ(form.email, u"a@example.com"_s) << "of a name given twice, the first counts";
    EXPECT_EQ(form.password, u"p+ss w%rd&="_s);
    EXPECT_EQ(form.confirm, u"\uFFFD"_s);
    EXPECT_EQ(form.csrf, u"%zz%4"_s);
    EXPECT_EQ(form.action, QString());
}

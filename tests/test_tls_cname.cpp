// The rule by which the common name of a certificate is found and compared.
#include "tavhttpclient/netbasehttps_openssl.h"
#include "tests/support/exact_buffer.h"

#include <gtest/gtest.h>

namespace {

TEST(CommonName, FoundBehindTheFirstLine) {
    const struct {
        const char *subject, *name;
    } rows[] = {
        {"O=Test\nCN=Mixed.Case.TEST", "mixed.case.test"},
        {"O=Test\nCN=first\nCN=second", "first"},
        {"O=Test\nCN=\nOU=x", ""},
        {"CN=only", "(none)"},
        {"CN=first\nCN=second", "second"},
        {"O=cn=inside\nOU=x", "(none)"},
        {"O=Test\nXCN=host", "(none)"},
        {"O=Test\nCN", "(none)"},
        {"", "(none)"},
    };
    for (const auto& row : rows) {
        heap_text subject = exact_text(row.subject);
        const char* name = find_common_name(subject.get());
        EXPECT_STREQ(row.name, name != nullptr ? name : "(none)") << row.subject;
    }
    EXPECT_EQ(nullptr, find_common_name(nullptr));
}

TEST(CommonName, ComparedWithTheExpectedName) {
    const struct {
        const char *name, *expected;
        bool matches;
    } rows[] = {
        {"host.test", "HOST.Test", true},
        {"ZONE.test", "zone.TEST", true},
        {"host.test", "a.host.test", false},
        {"host.test", "host.tes", false},
        {"", "host.test", false},
        {"*.host.test", "a.b.host.test", true},
        {"*.host.test", ".host.test", true},
        {"*.host.test", "ahost.test", false},
        {"*.host.test", "ost.test", false},
        {"*", "*", false},
        {"**.host.test", "a.host.test", false},
        {"a.*.test", "a.b.test", false},
        {"a.*.test", "a.*.test", true},
        {nullptr, "host.test", false},
        {"host.test", nullptr, false},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.matches, common_name_matches(row.name, row.expected))
            << testing::PrintToString(row.name) << " " << testing::PrintToString(row.expected);
    }
}

}  // namespace

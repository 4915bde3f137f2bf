// The rule by which the common name of a certificate is found and compared.
#include "tavhttpclient/netbasehttps_openssl.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

namespace {

// From an exact-size heap buffer, so that a step past its end is seen.
std::string found_in(const std::string& subject) {
    std::unique_ptr<char[]> copy(new char[subject.size() + 1]);
    std::memcpy(copy.get(), subject.c_str(), subject.size() + 1);
    const char* name = find_common_name(copy.get());
    return name != nullptr ? name : "(none)";
}

TEST(CommonName, FoundBehindTheFirstLine) {
    struct {
        const char* subject;
        const char* name;
    } cases[] = {
        {"C=XX\nO=Test\nCN=host.test", "host.test"},
        {"C=XX\nCN=host.test\nO=Test", "host.test"},
        {"O=Test\nCN=Mixed.Case.TEST", "mixed.case.test"},
        {"O=Test\nCN=first\nCN=second", "first"},
        {"O=Test\nCN=", ""},
        {"O=Test\nCN=\nOU=x", ""},
        {"O=Test\nCN=a=b", "a=b"},
        {"CN=first.line\nO=Test", "(none)"},
        {"CN=only", "(none)"},
        {"CN=first\nCN=second", "second"},
        {"O=cn=inside\nOU=x", "(none)"},
        {"O=Test\nXCN=host", "(none)"},
        {"O=Test\nCN", "(none)"},
        {"", "(none)"},
    };
    for (const auto& now : cases) {
        EXPECT_EQ(now.name, found_in(now.subject)) << now.subject;
    }
    EXPECT_EQ(nullptr, find_common_name(nullptr));
}

TEST(CommonName, ComparedWithTheExpectedName) {
    struct {
        const char* name;
        const char* expected;
        bool matches;
    } cases[] = {
        {"host.test", "host.test", true},
        {"host.test", "HOST.Test", true},
        {"host.test", "a.host.test", false},
        {"host.test", "host.tes", false},
        {"host.tes", "host.test", false},
        {"", "host.test", false},
        {"*.host.test", "host.test", true},
        {"*.host.test", "a.host.test", true},
        {"*.host.test", "A.HOST.TEST", true},
        {"*.host.test", "a.b.host.test", true},
        {"*.host.test", ".host.test", true},
        {"*.host.test", "ahost.test", false},
        {"*.host.test", "host.test.other", false},
        {"*.host.test", "ost.test", false},
        {"*.host.test", "test", false},
        {"*host.test", "host.test", false},
        {"*host.test", "ahost.test", false},
        {"*", "host.test", false},
        {"*", "*", false},
        {"**.host.test", "a.host.test", false},
        {"a.*.test", "a.b.test", false},
        {"a.*.test", "a.*.test", true},
        {"*.*.test", "a.b.test", false},
    };
    for (const auto& now : cases) {
        EXPECT_EQ(now.matches, common_name_matches(now.name, now.expected))
            << now.name << " and " << now.expected;
    }
    EXPECT_FALSE(common_name_matches(nullptr, "host.test"));
    EXPECT_FALSE(common_name_matches("host.test", nullptr));
}

}  // namespace

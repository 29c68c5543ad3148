#ifndef TESTS_TEST_CERTS_H_
#define TESTS_TEST_CERTS_H_

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

namespace vantu {
namespace testing {

// The certificates scripts/make-test-certs makes, once per process, in a
// fresh directory (never committed: they hold private keys).
inline const std::string& testCertDir() {
  static const std::string* dir = [] {
    char pattern[] = "/tmp/hsl_test_certs_XXXXXX";
    auto* made = new std::string(mkdtemp(pattern));
    const std::string command =
        std::string(HSL_SOURCE_DIR) + "/scripts/make-test-certs " + *made + " >/dev/null";
    if (system(command.c_str()) != 0) ADD_FAILURE() << "make-test-certs failed";
    return made;
  }();
  return *dir;
}

// The path of one of them, for example "ca.pem".
inline std::string cert(const std::string& name) { return testCertDir() + "/" + name; }

}  // namespace testing
}  // namespace vantu

#endif  // TESTS_TEST_CERTS_H_

#include "tests/support/TempDir.hpp"

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <system_error>

namespace vontu::testing {

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "vontu-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("cannot create a temporary directory");
    }
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ec;
    // Tests may leave read-only directories behind; make them writable before removing.
    for (auto it = std::filesystem::recursive_directory_iterator(path_, ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
        std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                     std::filesystem::perm_options::add, ec);
    }
    std::filesystem::remove_all(path_, ec);
}

}  // namespace vontu::testing

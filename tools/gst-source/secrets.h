// Passwords and passphrases: read from files, so that they need not stand on
// a command line, and kept out of what is shown.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tool {

struct Credentials {
    std::string user;
    std::string password;
};

// The first line of a file. Throws std::runtime_error with a message for people;
// a file that everyone can read adds a warning.
std::string ReadSecretFile(const std::string &path, std::vector<std::string> &warnings);

// "user:password" on one line, or user and password on two. Errors and warnings as ReadSecretFile.
Credentials ReadCredentialsFile(const std::string &path, std::vector<std::string> &warnings);

// The library logs the options of an open call in clear; a Masker takes the secrets out of its lines again. Copies share what
// they know: a secret added to one is hidden by all. Any thread.
class Masker {
  public:
    void Add(const std::string &secret);
    // Additionally hides the form in which HTTP carries credentials.
    void AddCredentials(const std::string &user, const std::string &password);
    std::string Mask(std::string line) const;

  private:
    struct Rule {
        std::string text;
        std::string replacement;
    };
    struct Rules {
        mutable std::mutex mutex;
        std::vector<Rule> all;
    };
    std::shared_ptr<Rules> m_rules = std::make_shared<Rules>();
};

}  // namespace tool

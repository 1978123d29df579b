#include "tests/support/account_file.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

AccountFile::AccountFile()
    : before(std::filesystem::current_path().string()),
      folder((std::filesystem::temp_directory_path() / "velta-test-XXXXXX").string()) {
  if (mkdtemp(folder.data()) == nullptr) {
    throw std::runtime_error("no folder for the account file: " + folder);
  }
  std::filesystem::current_path(folder);
}

AccountFile::~AccountFile() {
  std::error_code ignored;
  std::filesystem::current_path(before, ignored);
  std::filesystem::remove_all(folder, ignored);
}

void AccountFile::Write(const std::string& content) const {
  std::ofstream file(VELTA_PASSWD_FILE, std::ios::binary | std::ios::trunc);
  file.write(content.data(), static_cast<std::streamsize>(content.size()));
  file.close();
  if (!file) {
    throw std::runtime_error("the account file was not written");
  }
}

void AccountFile::MakeFolder() const { std::filesystem::create_directory(VELTA_PASSWD_FILE); }

void AccountFile::MakeLink(const std::string& target) const {
  std::filesystem::create_symlink(target, VELTA_PASSWD_FILE);
}

void AccountFile::Remove() const { std::filesystem::remove(VELTA_PASSWD_FILE); }

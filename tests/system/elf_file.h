#ifndef VELTA_TESTS_SYSTEM_ELF_FILE_H
#define VELTA_TESTS_SYSTEM_ELF_FILE_H

#include <elf.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// A shared object as it lies on disk, with what it offers and what it asks for, or an object file, which has
// symbols alone. Reads both classes and both byte orders, whatever machine it runs on. Throws
// std::runtime_error for a file that is no complete ELF file.
class ElfFile {
 public:
  struct Symbol {
    std::string name;
    unsigned binding;  // STB_...
    bool defined;
  };
  struct DynamicEntry {
    std::uint64_t tag;  // DT_...
    std::uint64_t value;
  };

  explicit ElfFile(const std::string& path);

  // The dynamic symbol table without its empty first entry.
  const std::vector<Symbol>& DynamicSymbols() const { return dynamicSymbols; }

  // The symbol table that the linker reads, which a stripped file has not; likewise.
  const std::vector<Symbol>& LinkSymbols() const { return linkSymbols; }

  const std::vector<DynamicEntry>& DynamicEntries() const { return entries; }

  // The texts of the dynamic entries with that tag, such as the names of DT_NEEDED.
  std::vector<std::string> DynamicTexts(std::uint64_t tag) const;

  // The versions of library symbols that the file asks for, such as "GLIBC_2.17".
  const std::vector<std::string>& RequiredVersions() const { return versions; }

  unsigned Machine() const {
    return static_cast<unsigned>(Number(offsetof(Elf32_Ehdr, e_machine), 2));
  }  // EM_...

  // Every byte of the file.
  const std::string& Bytes() const { return bytes; }

 private:
  struct Section {
    std::uint32_t type;
    std::uint32_t link;
    std::uint64_t offset;
    std::uint64_t size;
  };

  std::uint64_t Number(std::uint64_t offset, std::size_t width) const;
  std::uint64_t Word(std::uint64_t offset) const { return Number(offset, wide ? 8 : 4); }  // one address wide
  std::string Text(std::uint64_t offset) const;
  Section ReadSection(std::uint64_t offset) const;
  std::vector<Symbol> ReadSymbols(const Section& section, const Section& names) const;
  void ReadDynamicEntries(const Section& section);
  void ReadRequiredVersions(const Section& section, const Section& names);

  std::string bytes;
  bool wide = false;       // 64-bit
  bool bigEndian = false;  // of the file, not of the machine
  std::uint64_t dynamicTextOffset = 0;
  std::vector<Symbol> dynamicSymbols;
  std::vector<Symbol> linkSymbols;
  std::vector<DynamicEntry> entries;
  std::vector<std::string> versions;
};

#endif  // VELTA_TESTS_SYSTEM_ELF_FILE_H

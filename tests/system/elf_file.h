#ifndef VELTA_TESTS_SYSTEM_ELF_FILE_H
#define VELTA_TESTS_SYSTEM_ELF_FILE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// A shared object as it lies on disk: what it offers, what it asks for. Reads both classes and both byte
// orders, whatever machine it runs on. Throws std::runtime_error for a file that is no complete ELF file.
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
  const std::vector<Symbol>& DynamicSymbols() const { return symbols; }
  const std::vector<DynamicEntry>& DynamicEntries() const { return entries; }

  // The texts of the dynamic entries with that tag, such as the names of DT_NEEDED.
  std::vector<std::string> DynamicTexts(std::uint64_t tag) const;

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
  void ReadDynamicSymbols(const Section& section, const Section& names);
  void ReadDynamicEntries(const Section& section);

  std::string bytes;
  bool wide = false;       // 64-bit
  bool bigEndian = false;  // of the file, not of the machine
  std::uint64_t dynamicTextOffset = 0;
  std::vector<Symbol> symbols;
  std::vector<DynamicEntry> entries;
};

#endif  // VELTA_TESTS_SYSTEM_ELF_FILE_H

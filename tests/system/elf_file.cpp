#include "tests/system/elf_file.h"

#include <elf.h>

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

ElfFile::ElfFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  bytes = content.str();
  if (bytes.compare(0, SELFMAG, ELFMAG) != 0 || bytes.size() < sizeof(Elf32_Ehdr)) {
    throw std::runtime_error(path + " is no ELF file");
  }
  wide = bytes[EI_CLASS] == ELFCLASS64;
  bigEndian = bytes[EI_DATA] == ELFDATA2MSB;

  const std::uint64_t sectionsOffset = Word(wide ? 40 : 32);
  const std::uint64_t sectionSize = Number(wide ? 58 : 46, 2);
  const std::uint64_t sectionCount = Number(wide ? 60 : 48, 2);
  std::vector<Section> sections;
  for (std::uint64_t index = 0; index < sectionCount; ++index) {
    sections.push_back(ReadSection(sectionsOffset + index * sectionSize));
  }
  for (const Section& section : sections) {
    if (section.type == SHT_DYNSYM) {
      dynamicSymbols = ReadSymbols(section, sections.at(section.link));
    } else if (section.type == SHT_SYMTAB) {
      linkSymbols = ReadSymbols(section, sections.at(section.link));
    } else if (section.type == SHT_DYNAMIC) {
      dynamicTextOffset = sections.at(section.link).offset;
      ReadDynamicEntries(section);
    } else if (section.type == SHT_GNU_verneed) {
      ReadRequiredVersions(section, sections.at(section.link));
    }
  }
  const std::uint64_t type = Number(EI_NIDENT, 2);
  if (entries.empty() && type != ET_REL) {
    throw std::runtime_error(path + " has no dynamic section");
  }
}

std::vector<std::string> ElfFile::DynamicTexts(std::uint64_t tag) const {
  std::vector<std::string> texts;
  for (const DynamicEntry& entry : entries) {
    if (entry.tag == tag) {
      texts.push_back(Text(dynamicTextOffset + entry.value));
    }
  }
  return texts;
}

std::uint64_t ElfFile::Number(std::uint64_t offset, std::size_t width) const {
  if (offset > bytes.size() || bytes.size() - offset < width) {
    throw std::runtime_error("the ELF file is cut short");
  }
  std::uint64_t number = 0;
  for (std::size_t index = 0; index < width; ++index) {
    const std::size_t place = bigEndian ? index : width - 1 - index;
    number = number << 8 | static_cast<unsigned char>(bytes[static_cast<std::size_t>(offset) + place]);
  }
  return number;
}

std::string ElfFile::Text(std::uint64_t offset) const {
  const std::size_t end = bytes.find('\0', static_cast<std::size_t>(offset));
  if (offset > bytes.size() || end == std::string::npos) {
    throw std::runtime_error("the ELF file is cut short");
  }
  return bytes.substr(static_cast<std::size_t>(offset), end - static_cast<std::size_t>(offset));
}

ElfFile::Section ElfFile::ReadSection(std::uint64_t offset) const {
  Section section = Section();
  section.type = static_cast<std::uint32_t>(Number(offset + 4, 4));
  section.offset = Word(offset + (wide ? 24 : 16));
  section.size = Word(offset + (wide ? 32 : 20));
  section.link = static_cast<std::uint32_t>(Number(offset + (wide ? 40 : 24), 4));
  return section;
}

std::vector<ElfFile::Symbol> ElfFile::ReadSymbols(const Section& section, const Section& names) const {
  std::vector<Symbol> symbols;
  const std::uint64_t size = wide ? sizeof(Elf64_Sym) : sizeof(Elf32_Sym);
  for (std::uint64_t offset = size; offset + size <= section.size; offset += size) {
    const std::uint64_t at = section.offset + offset;
    Symbol symbol;
    symbol.name = Text(names.offset + Number(at, 4));
    symbol.binding = ELF32_ST_BIND(static_cast<unsigned>(Number(at + (wide ? 4 : 12), 1)));
    symbol.defined = Number(at + (wide ? 6 : 14), 2) != SHN_UNDEF;
    symbols.push_back(symbol);
  }
  return symbols;
}

void ElfFile::ReadDynamicEntries(const Section& section) {
  const std::uint64_t size = wide ? sizeof(Elf64_Dyn) : sizeof(Elf32_Dyn);
  for (std::uint64_t offset = 0; offset + size <= section.size; offset += size) {
    const std::uint64_t at = section.offset + offset;
    entries.push_back({Word(at), Word(at + size / 2)});
    if (entries.back().tag == DT_NULL) {
      return;
    }
  }
}

// A list of libraries, each with a list of versions; the records are alike in both classes.
void ElfFile::ReadRequiredVersions(const Section& section, const Section& names) {
  std::uint64_t library = section.offset;
  for (std::uint64_t toNextLibrary = 1; toNextLibrary != 0; library += toNextLibrary) {
    std::uint64_t version = library + Number(library + offsetof(Elf32_Verneed, vn_aux), 4);
    for (std::uint64_t toNextVersion = 1; toNextVersion != 0; version += toNextVersion) {
      versions.push_back(Text(names.offset + Number(version + offsetof(Elf32_Vernaux, vna_name), 4)));
      toNextVersion = Number(version + offsetof(Elf32_Vernaux, vna_next), 4);
    }
    toNextLibrary = Number(library + offsetof(Elf32_Verneed, vn_next), 4);
  }
}

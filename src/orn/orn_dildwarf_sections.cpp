// Fetches the debug sections of a symbol file and keeps their bytes for all units: asked by the loader before
// its unit scan, by units for texts and walkers. Here stands what makes raw bytes safe to point into: private
// copies where relocations have to be put in, and texts that always end. Sections that only call frames and
// stack variables need are left to those.

#include "orn_dildwarf_sections.h"

#include "orn_log.h"

#include <algorithm>
#include <cstring>

namespace ORN_3_30 {

namespace {

/// Texts longer than this are noted, so that damaged data cannot have one of them searched again and again.
constexpr unsigned long long longText = 256;

/// Texts up to this length are read to their end as often as they are named, many bytes at a time.
constexpr std::size_t usualText = 4096;
constexpr std::size_t textBytesOfStep = 16;
/// Texts up to this length are searched for each of many words as often as they are named.
constexpr std::size_t usualSearchedText = 512;

/// How much work beyond all that is usual the sections may cause for each of their bytes, and at any rate.
constexpr unsigned long long excessOfByte = 8;
constexpr unsigned long long excessAtAnyRate = 0x40000;

/// How often each byte of `.debug_line` may be run, on average: units share programs where a tool has taken
/// units apart. At any rate so many bytes, for small sections that have many units.
constexpr unsigned long long runsOfLineByte = 16;
constexpr unsigned long long lineBytesAtAnyRate = 0x100000;

/// Offset behind the last zero byte of [begin, begin + size).
unsigned long long behindLastZero(const unsigned char* begin, unsigned long long size) {
    while (size > 0 && begin[size - 1] != 0)
        --size;
    return size;
}

/// The contents, or null where they are not to be had as they should be.
const unsigned char* contentsOf(ISectionData* section, unsigned long long& size) {
    size = 0;
    if (!section)
        return nullptr;
    status_t status = status_Ok;
    const unsigned long long statedSize = section->getSize(status);
    if (isFailure(status))
        return nullptr;
    const unsigned char* data = section->getData();
    if (data)
        size = statedSize;
    return data;
}

} // namespace

void RelocatedSection::assign(ISectionData* section, RelocationAddends* relocations) {
    m_section = section;
    m_relocations = relocations;
    m_begin = contentsOf(section, m_size);
    m_bias = m_begin ? section->getBias() : 0;
    if (!m_begin || !relocations || relocations->isEmpty())
        return;
    m_copy.reset(new unsigned char[m_size]);
    std::memcpy(m_copy.get(), m_begin, m_size);
    m_begin = m_copy.get();
}

void RelocatedSection::relocate(unsigned long long begin, unsigned long long end, unsigned width) {
    if (!m_copy || begin >= end)
        return;
    auto done = m_doneEndByBegin.upper_bound(begin);
    if (done != m_doneEndByBegin.begin() && std::prev(done)->second >= begin)
        --done;
    // Walk the ranges done before that meet this one, relocate the gaps between them, and make all of it one.
    unsigned long long position = begin;
    const unsigned long long wantedEnd = end;
    while (done != m_doneEndByBegin.end() && done->first <= wantedEnd) {
        relocateNew(position, std::max(position, done->first), width);
        position = std::max(position, done->second);
        begin = std::min(begin, done->first);
        end = std::max(end, done->second);
        done = m_doneEndByBegin.erase(done);
    }
    relocateNew(position, wantedEnd, width);
    m_doneEndByBegin[begin] = end;
}

void RelocatedSection::relocateNew(unsigned long long begin, unsigned long long end, unsigned width) {
    if (begin >= end)
        return;
    WritableSectionWalker walker(m_copy.get(), m_size);
    walker.setAddressSize(static_cast<std::uint8_t>(width));
    m_relocations->applyRange(walker, begin, end);
}

status_t DWARFSections::ensureRead() {
    if (m_status == status_NotInitialized)
        m_status = read();
    return m_status;
}

status_t DWARFSections::read() {
    if (!m_helper)
        return status_NoDebugInfo;
    SymMgrObjectPtr<ISectionData> info;
    m_helper->getSectionData(info, section_debug_info);
    if (!info)
        return status_NoDebugInfo;
    // The size comes first: only it tells that a decompression failed, after which the compressed bytes stand
    // in the contents.
    status_t status = status_Ok;
    info->getSize(status);
    if (status == status_UnsupportedDebugInfoFormat || status == status_OutOfMemory)
        return status;
    if (!info->getData())
        return status_NoDebugInfo;

    m_helper->getSectionData(m_abbrev, section_debug_abbrev);
    contentsOf(m_abbrev, m_abbrevSize);
    readRelocated(info, m_info);
    SymMgrObjectPtr<ISectionData> line;
    m_helper->getSectionData(line, section_debug_line);
    readRelocated(line, m_line);
    readStrings();
    m_helper->getSectionData(m_ranges, section_debug_ranges);
    m_rangesBegin = contentsOf(m_ranges, m_rangesSize);
    m_lineProgramBytes = lineBytesAtAnyRate + runsOfLineByte * m_line.size();
    renewExcess();
    return status_Ok;
}

void DWARFSections::renewExcess() {
    m_excess = excessAtAnyRate +
               excessOfByte * (m_info.size() + m_abbrevSize + m_strSize + m_line.size() + m_rangesSize);
}

bool DWARFSections::affordsText(const char* text) {
    if (strnlen(text, usualText) < usualText)
        return true;
    return !isExcessUsedUp() && affords(std::strlen(text) / textBytesOfStep);
}

bool DWARFSections::affordsSearches(const char* text) {
    if (strnlen(text, usualSearchedText) < usualSearchedText)
        return true;
    return !isExcessUsedUp() && affords(std::strlen(text));
}

bool DWARFSections::affordsLineProgram(unsigned long long size) {
    if (size > m_lineProgramBytes)
        return false;
    m_lineProgramBytes -= size;
    return true;
}

void DWARFSections::readRelocated(ISectionData* section, RelocatedSection& out) {
    if (!section)
        return;
    SymMgrObjectPtr<RelocationAddends> relocations;
    m_helper->getRelocationAddends(relocations, section->getIndex());
    out.assign(section, relocations);
}

void DWARFSections::readStrings() {
    m_helper->getSectionData(m_str, section_debug_str);
    m_strBegin = contentsOf(m_str, m_strSize);
    if (!m_strBegin)
        return;
    m_strTailBegin = behindLastZero(m_strBegin, m_strSize);
    m_strTail.assign(reinterpret_cast<const char*>(m_strBegin) + m_strTailBegin, m_strSize - m_strTailBegin);
}

const char* DWARFSections::textInInfo(unsigned long long position, unsigned long long viewEnd,
                                      unsigned long long& length) {
    length = 0;
    if (position >= viewEnd)
        return "";
    const char* begin = reinterpret_cast<const char*>(m_info.begin()) + position;
    const unsigned long long searched = std::min(viewEnd - position, longText);
    if (const void* zero = std::memchr(begin, 0, searched)) {
        length = static_cast<unsigned long long>(static_cast<const char*>(zero) - begin);
        return begin;
    }
    ScopedLock guard(&m_textLock);
    const unsigned long long end = endOfText(position, viewEnd);
    length = end - position;
    return end < viewEnd ? begin : terminatedTail(position, viewEnd);
}

const char* DWARFSections::keepText(const std::string& text) {
    ScopedLock guard(&m_textLock);
    return m_keptTexts.insert(text).first->c_str();
}

/// The zero byte behind `position`, or the view's end. No byte is searched twice.
unsigned long long DWARFSections::endOfText(unsigned long long position, unsigned long long viewEnd) {
    auto known = m_longTextEnds.upper_bound(position);
    if (known != m_longTextEnds.begin() && position < std::prev(known)->second)
        return std::prev(known)->second;
    const unsigned long long searchEnd =
        known != m_longTextEnds.end() ? std::min(viewEnd, known->first) : viewEnd;
    const unsigned char* begin = m_info.begin();
    const void* zero = std::memchr(begin + position, 0, searchEnd - position);
    unsigned long long end = searchEnd;
    if (zero) {
        end = static_cast<unsigned long long>(static_cast<const unsigned char*>(zero) - begin);
    } else if (searchEnd < viewEnd) {
        end = known->second;
    }
    m_longTextEnds[position] = end;
    return end;
}

const char* DWARFSections::terminatedTail(unsigned long long position, unsigned long long viewEnd) {
    auto& [tailBegin, text] = m_tails[viewEnd];
    if (text.empty()) {
        // From behind the last zero byte, so that one copy serves every text that runs to this end.
        tailBegin = behindLastZero(m_info.begin(), viewEnd);
        text.assign(reinterpret_cast<const char*>(m_info.begin()) + tailBegin, viewEnd - tailBegin);
    }
    return text.c_str() + (position - tailBegin);
}

} // namespace ORN_3_30

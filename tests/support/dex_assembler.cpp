#include "support/dex_assembler.h"

#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <stdexcept>
#include <tuple>
#include <utility>

namespace orn_test {

namespace {

constexpr uint32_t noIndex = 0xFFFFFFFF;
constexpr uint32_t headerSize = 112;
constexpr const char* voidType = "V";
constexpr const char* fieldType = "I";
constexpr const char* objectType = "Ljava/lang/Object;";

enum : uint32_t {
    ACC_PUBLIC = 0x1,
    ACC_STATIC = 0x8,
    ACC_NATIVE = 0x100,
    ACC_CONSTRUCTOR = 0x10000,
};

std::string key(const std::string& descriptor, const std::string& member) {
    return descriptor + member;
}

} // namespace

// --- Line programs

DexLines& DexLines::op(std::initializer_list<uint8_t> bytes) {
    m_ops.push_back({bytes, std::nullopt});
    return *this;
}

DexLines& DexLines::parameters(std::vector<std::string> names) {
    m_parameters = std::move(names);
    return *this;
}

DexLines& DexLines::raw(std::vector<uint8_t> bytes) {
    m_ops.push_back({std::move(bytes), std::nullopt});
    return *this;
}

DexLines& DexLines::advancePc(uint64_t by) {
    ByteAssembler bytes;
    return raw(bytes.u8(1).uleb(by).bytes());
}

DexLines& DexLines::advanceLine(int64_t by) {
    ByteAssembler bytes;
    return raw(bytes.u8(2).sleb(by).bytes());
}

// Names and types of locals are "no index", which these fields hold as 0.

DexLines& DexLines::startLocal(uint32_t reg) {
    ByteAssembler bytes;
    return raw(bytes.u8(3).uleb(reg).uleb(0).uleb(0).bytes());
}

DexLines& DexLines::startLocalExtended(uint32_t reg) {
    ByteAssembler bytes;
    return raw(bytes.u8(4).uleb(reg).uleb(0).uleb(0).uleb(0).bytes());
}

DexLines& DexLines::endLocal(uint32_t reg) {
    ByteAssembler bytes;
    return raw(bytes.u8(5).uleb(reg).bytes());
}

DexLines& DexLines::restartLocal(uint32_t reg) {
    ByteAssembler bytes;
    return raw(bytes.u8(6).uleb(reg).bytes());
}

DexLines& DexLines::prologueEnd() {
    return op({7});
}

DexLines& DexLines::epilogueBegin() {
    return op({8});
}

DexLines& DexLines::setFile(std::string name) {
    m_ops.push_back({{9}, std::move(name)});
    return *this;
}

DexLines& DexLines::row(int line, unsigned pc) {
    const int opcode = 10 + static_cast<int>(pc) * 15 + line + 4;
    if (line < -4 || line > 10 || opcode > 255)
        throw std::logic_error("no special opcode goes so far");
    return op({static_cast<uint8_t>(opcode)});
}

DexLines& DexLines::end() {
    return op({0});
}

// --- Tables of identifiers

/// Every identifier that the file needs, sorted as the format demands.
struct DexAssembler::Tables {
    std::vector<std::string> strings;
    std::vector<std::string> types;
    struct Member {
        uint32_t type;
        uint32_t name;
        std::string key;
        bool operator<(const Member& other) const {
            return std::tie(type, name) < std::tie(other.type, other.name);
        }
    };
    std::vector<Member> fields;
    std::vector<Member> methods;

    static uint32_t indexIn(const std::vector<std::string>& sorted, std::string_view text) {
        const auto found = std::lower_bound(sorted.begin(), sorted.end(), text);
        if (found == sorted.end() || *found != text)
            throw std::logic_error("not in the file: " + std::string(text));
        return static_cast<uint32_t>(found - sorted.begin());
    }
    uint32_t string(std::string_view text) const { return indexIn(strings, text); }
    uint32_t type(std::string_view descriptor) const { return indexIn(types, descriptor); }
    uint32_t memberIndex(const std::vector<Member>& members, const std::string& descriptor,
                         const std::string& name) const {
        const auto found =
            std::lower_bound(members.begin(), members.end(), Member{type(descriptor), string(name), {}});
        return static_cast<uint32_t>(found - members.begin());
    }
};

/// Where the data lies, for the map.
struct DexAssembler::Sections {
    struct Section {
        uint16_t type;
        uint32_t count;
        ByteAssembler::Label begin;
    };
    std::vector<Section> all;
};

size_t DexAssembler::addClass(std::string descriptor, std::optional<std::string> sourceFile) {
    m_classes.push_back({std::move(descriptor), std::move(sourceFile), {}, {}, {}});
    return m_classes.size() - 1;
}

void DexAssembler::addStaticField(size_t classIndex, std::string name) {
    m_classes.at(classIndex).staticFields.push_back({std::move(name)});
}

void DexAssembler::addInstanceField(size_t classIndex, std::string name) {
    m_classes.at(classIndex).instanceFields.push_back({std::move(name)});
}

void DexAssembler::addMethod(size_t classIndex, std::string name, DexMethodBody body) {
    m_classes.at(classIndex).methods.push_back({std::move(name), std::move(body)});
}

/// Direct methods, then virtual ones; in each group by name, since all have one prototype.
std::vector<const DexAssembler::Method*> DexAssembler::sortedMethods(const Class& dexClass) {
    std::vector<const Method*> methods;
    for (const Method& method : dexClass.methods)
        methods.push_back(&method);
    std::sort(methods.begin(), methods.end(), [](const Method* a, const Method* b) {
        return std::tie(a->body.isVirtual, a->name) < std::tie(b->body.isVirtual, b->name);
    });
    return methods;
}

std::vector<std::string> DexAssembler::methodNames(size_t classIndex) const {
    std::vector<std::string> names;
    for (const Method* method : sortedMethods(m_classes.at(classIndex)))
        names.push_back(method->name);
    return names;
}

uint32_t DexAssembler::stringIndex(std::string_view text) const {
    return tables().string(text);
}

DexAssembler::Tables DexAssembler::tables() const {
    std::set<std::string> types{voidType, fieldType, objectType};
    std::set<std::string> strings;
    for (const Class& dexClass : m_classes) {
        types.insert(dexClass.descriptor);
        if (dexClass.sourceFile)
            strings.insert(*dexClass.sourceFile);
        for (const auto* fields : {&dexClass.staticFields, &dexClass.instanceFields})
            for (const Field& field : *fields)
                strings.insert(field.name);
        for (const Method& method : dexClass.methods) {
            strings.insert(method.name);
            if (!method.body.lines)
                continue;
            for (const std::string& parameter : method.body.lines->m_parameters)
                strings.insert(parameter);
            for (const DexLines::Op& op : method.body.lines->m_ops)
                if (op.fileName)
                    strings.insert(*op.fileName);
        }
    }
    strings.insert(types.begin(), types.end());
    Tables result;
    result.strings.assign(strings.begin(), strings.end());
    result.types.assign(types.begin(), types.end());
    for (const Class& dexClass : m_classes) {
        const uint32_t type = result.type(dexClass.descriptor);
        for (const auto* fields : {&dexClass.staticFields, &dexClass.instanceFields})
            for (const Field& field : *fields)
                result.fields.push_back(
                    {type, result.string(field.name), key(dexClass.descriptor, field.name)});
        for (const Method& method : dexClass.methods)
            result.methods.push_back(
                {type, result.string(method.name), key(dexClass.descriptor, method.name)});
    }
    std::sort(result.fields.begin(), result.fields.end());
    std::sort(result.methods.begin(), result.methods.end());
    return result;
}

// --- The file

ByteAssembler DexAssembler::assemble() const {
    const Tables ids = tables();
    ByteAssembler out;
    Sections sections;
    out.chars("dex\n035").u8(0);
    out.u32(0).fill(20); // checksum, signature
    out.absolute("end", 4).u32(headerSize).u32(0x12345678);
    out.u32(0).u32(0); // link
    out.absolute("map", 4);
    const auto table = [&](size_t count, const char* label) {
        out.u32(static_cast<uint32_t>(count));
        if (count != 0)
            out.absolute(label, 4);
        else
            out.u32(0);
    };
    table(ids.strings.size(), "string_ids");
    table(ids.types.size(), "type_ids");
    table(1, "proto_ids");
    table(ids.fields.size(), "field_ids");
    table(ids.methods.size(), "method_ids");
    table(m_classes.size(), "class_defs");
    out.difference("end", "data", 4).absolute("data", 4);

    writeIds(out, ids);
    writeClassDefs(out, ids);
    out.define("data");
    writeCode(out, sections);
    writeLines(out, ids, sections);
    sections.all.push_back({0x2002, static_cast<uint32_t>(ids.strings.size()), out.here()});
    for (const std::string& text : ids.strings)
        out.define("string:" + text).uleb(text.size()).str(text);
    writeClassData(out, ids, sections);

    out.align(4).define("map");
    struct IdTable {
        uint16_t type;
        size_t count;
        const char* label;
    };
    const IdTable idTables[] = {
        {1, ids.strings.size(), "string_ids"},
        {2, ids.types.size(), "type_ids"},
        {3, 1, "proto_ids"},
        {4, ids.fields.size(), "field_ids"},
        {5, ids.methods.size(), "method_ids"},
        {6, m_classes.size(), "class_defs"},
    };
    const auto present = std::count_if(std::begin(idTables), std::end(idTables),
                                       [](const IdTable& each) { return each.count != 0; });
    out.u32(static_cast<uint32_t>(2 + present + sections.all.size()));
    out.u16(0).u16(0).u32(1).u32(0);
    for (const IdTable& each : idTables)
        if (each.count != 0)
            out.u16(each.type).u16(0).u32(static_cast<uint32_t>(each.count)).absolute(each.label, 4);
    for (const Sections::Section& each : sections.all)
        out.u16(each.type).u16(0).u32(each.count).absolute(each.begin, 4);
    out.u16(0x1000).u16(0).u32(1).absolute("map", 4);
    out.define("end");
    return out;
}

std::vector<uint8_t> DexAssembler::build() const {
    std::vector<uint8_t> bytes = assemble().bytes();
    const auto checksum =
        static_cast<uint32_t>(adler32(1, bytes.data() + 12, static_cast<uInt>(bytes.size() - 12)));
    std::memcpy(bytes.data() + 8, &checksum, sizeof(checksum));
    return bytes;
}

void DexAssembler::writeIds(ByteAssembler& out, const Tables& ids) const {
    out.define("string_ids");
    for (const std::string& text : ids.strings)
        out.define("string_id:" + text).absolute("string:" + text, 4);
    out.define("type_ids");
    for (const std::string& descriptor : ids.types)
        out.define("type_id:" + descriptor).u32(ids.string(descriptor));
    out.define("proto_ids").u32(ids.string(voidType)).u32(ids.type(voidType)).u32(0);
    if (!ids.fields.empty())
        out.define("field_ids");
    for (const Tables::Member& field : ids.fields)
        out.u16(static_cast<uint16_t>(field.type))
            .u16(static_cast<uint16_t>(ids.type(fieldType)))
            .u32(field.name);
    if (!ids.methods.empty())
        out.define("method_ids");
    for (const Tables::Member& method : ids.methods)
        out.define("method_id:" + method.key).u16(static_cast<uint16_t>(method.type)).u16(0).u32(method.name);
}

void DexAssembler::writeClassDefs(ByteAssembler& out, const Tables& ids) const {
    if (!m_classes.empty())
        out.define("class_defs");
    for (const Class& dexClass : m_classes) {
        out.define("class_def:" + dexClass.descriptor);
        out.u32(ids.type(dexClass.descriptor)).u32(ACC_PUBLIC).u32(ids.type(objectType)).u32(0);
        out.u32(dexClass.sourceFile ? ids.string(*dexClass.sourceFile) : noIndex).u32(0);
        const bool hasMembers =
            !dexClass.staticFields.empty() || !dexClass.instanceFields.empty() || !dexClass.methods.empty();
        if (hasMembers)
            out.absolute("class_data:" + dexClass.descriptor, 4);
        else
            out.u32(0);
        out.u32(0);
    }
}

void DexAssembler::writeCode(ByteAssembler& out, Sections& sections) const {
    uint32_t count = 0;
    out.align(4);
    const auto begin = out.here();
    for (const Class& dexClass : m_classes)
        for (const Method* method : sortedMethods(dexClass)) {
            if (!method->body.hasCode)
                continue;
            ++count;
            const std::string name = key(dexClass.descriptor, method->name);
            out.align(4).define("code:" + name);
            out.u16(1).u16(method->body.isVirtual || method->name == "<init>" ? 1 : 0).u16(0).u16(0);
            if (method->body.lines)
                out.absolute("lines:" + name, 4);
            else
                out.u32(0);
            out.u32(method->body.instructionUnits);
            for (uint32_t unit = 0; unit < method->body.instructionUnits; ++unit)
                out.u16(unit + 1 == method->body.instructionUnits ? 0x000E : 0); // return-void, nop
        }
    if (count != 0)
        sections.all.push_back({0x2001, count, begin});
}

void DexAssembler::writeLines(ByteAssembler& out, const Tables& ids, Sections& sections) const {
    uint32_t count = 0;
    const auto begin = out.here();
    for (const Class& dexClass : m_classes)
        for (const Method* method : sortedMethods(dexClass)) {
            if (!method->body.lines || !method->body.hasCode)
                continue;
            ++count;
            const DexLines& lines = *method->body.lines;
            out.define("lines:" + key(dexClass.descriptor, method->name));
            out.uleb(lines.m_lineStart).uleb(lines.m_parameters.size());
            for (const std::string& parameter : lines.m_parameters)
                out.uleb(parameter.empty() ? 0 : ids.string(parameter) + 1ULL);
            for (const DexLines::Op& op : lines.m_ops) {
                out.raw(op.bytes);
                if (op.fileName)
                    out.uleb(ids.string(*op.fileName) + 1ULL);
            }
        }
    if (count != 0)
        sections.all.push_back({0x2003, count, begin});
}

void DexAssembler::writeClassData(ByteAssembler& out, const Tables& ids, Sections& sections) const {
    uint32_t count = 0;
    const auto begin = out.here();
    for (const Class& dexClass : m_classes) {
        const std::vector<const Method*> methods = sortedMethods(dexClass);
        if (dexClass.staticFields.empty() && dexClass.instanceFields.empty() && methods.empty())
            continue;
        ++count;
        out.define("class_data:" + dexClass.descriptor);
        const auto direct = std::count_if(methods.begin(), methods.end(),
                                          [](const Method* method) { return !method->body.isVirtual; });
        out.uleb(dexClass.staticFields.size()).uleb(dexClass.instanceFields.size());
        out.uleb(static_cast<uint64_t>(direct)).uleb(methods.size() - static_cast<size_t>(direct));
        for (const auto* fields : {&dexClass.staticFields, &dexClass.instanceFields}) {
            std::set<uint32_t> indices;
            for (const Field& field : *fields)
                indices.insert(ids.memberIndex(ids.fields, dexClass.descriptor, field.name));
            uint32_t previous = 0;
            for (const uint32_t index : indices) {
                out.uleb(index - previous);
                out.uleb(fields == &dexClass.staticFields ? ACC_PUBLIC | ACC_STATIC : ACC_PUBLIC);
                previous = index;
            }
        }
        uint32_t previous = 0;
        bool wasVirtual = false;
        for (const Method* method : methods) {
            if (method->body.isVirtual != wasVirtual)
                previous = 0;
            wasVirtual = method->body.isVirtual;
            const std::string name = key(dexClass.descriptor, method->name);
            const uint32_t index = ids.memberIndex(ids.methods, dexClass.descriptor, method->name);
            out.define("member:" + name).uleb(index - previous);
            previous = index;
            uint32_t flags = ACC_PUBLIC;
            if (method->name == "<init>")
                flags |= ACC_CONSTRUCTOR;
            else if (!method->body.isVirtual)
                flags |= ACC_STATIC;
            if (!method->body.hasCode)
                flags |= ACC_NATIVE;
            out.uleb(flags);
            if (method->body.hasCode)
                out.uleb(out.offsetOf("code:" + name));
            else
                out.uleb(0);
        }
    }
    if (count != 0)
        sections.all.push_back({0x2000, count, begin});
}

} // namespace orn_test

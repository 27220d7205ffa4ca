// Builds dex files of version 035 for tests.
#ifndef ORN_TEST_DEX_ASSEMBLER_H
#define ORN_TEST_DEX_ASSEMBLER_H

#include "support/byte_assembler.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orn_test {

/// A line program: a `debug_info_item`. Strings are told by their texts; their indices are put in when the
/// file is built.
class DexLines {
public:
    explicit DexLines(uint32_t lineStart) : m_lineStart(lineStart) {}

    /// Parameter names; an empty one is written as "no index".
    DexLines& parameters(std::vector<std::string> names);
    DexLines& advancePc(uint64_t by);
    DexLines& advanceLine(int64_t by);
    DexLines& startLocal(uint32_t reg);
    DexLines& startLocalExtended(uint32_t reg);
    DexLines& endLocal(uint32_t reg);
    DexLines& restartLocal(uint32_t reg);
    DexLines& prologueEnd();
    DexLines& epilogueBegin();
    DexLines& setFile(std::string name);
    /// A special opcode: one row, `line` (-4 to 10) lines and `pc` units on.
    DexLines& row(int line, unsigned pc);
    DexLines& raw(std::vector<uint8_t> bytes);
    DexLines& end();

private:
    friend class DexAssembler;
    struct Op {
        std::vector<uint8_t> bytes;
        std::optional<std::string> fileName; ///< behind the bytes: its index plus 1
    };
    DexLines& op(std::initializer_list<uint8_t> bytes);

    uint32_t m_lineStart;
    std::vector<std::string> m_parameters;
    std::vector<Op> m_ops;
};

/// What a method consists of besides its name.
struct DexMethodBody {
    bool isVirtual = false;
    bool hasCode = true; ///< otherwise it is native, and its `code_off` 0
    uint32_t instructionUnits = 4;
    std::optional<DexLines> lines = std::nullopt;
};

/// Builds dex files that the verifiers of the field accept: identifiers are sorted, there is a map, and the
/// checksum is right.
///
/// Classes stay in the order of their making. The methods of a class stand in its class data as their
/// identifiers are sorted, direct ones first: `methodNames` tells that order.
class DexAssembler {
public:
    /// Descriptor such as "Lcom/acme/Foo;". Returns the class's index.
    size_t addClass(std::string descriptor, std::optional<std::string> sourceFile = std::nullopt);
    void addStaticField(size_t classIndex, std::string name);
    void addInstanceField(size_t classIndex, std::string name);
    void addMethod(size_t classIndex, std::string name, DexMethodBody body = {});

    size_t classCount() const { return m_classes.size(); }
    const std::string& descriptor(size_t classIndex) const { return m_classes.at(classIndex).descriptor; }
    /// Names of the methods of a class in the order of its class data.
    std::vector<std::string> methodNames(size_t classIndex) const;
    uint32_t stringIndex(std::string_view text) const;

    /// The file, with labels for damage: "string:<text>" on a string's data, "string_id:<text>",
    /// "type_id:<descriptor>", "method_id:<descriptor><name>", "class_def:<descriptor>",
    /// "class_data:<descriptor>", "code:<descriptor><name>", "lines:<descriptor><name>". Damage that is put
    /// in here leaves the checksum wrong.
    ByteAssembler assemble() const;
    /// The finished file, checksum included.
    std::vector<uint8_t> build() const;

private:
    struct Field {
        std::string name;
    };
    struct Method {
        std::string name;
        DexMethodBody body;
    };
    struct Class {
        std::string descriptor;
        std::optional<std::string> sourceFile;
        std::vector<Field> staticFields, instanceFields;
        std::vector<Method> methods;
    };
    struct Tables;
    struct Sections;

    Tables tables() const;
    static std::vector<const Method*> sortedMethods(const Class& dexClass);
    void writeIds(ByteAssembler& out, const Tables& tables) const;
    void writeClassDefs(ByteAssembler& out, const Tables& tables) const;
    void writeCode(ByteAssembler& out, Sections& sections) const;
    void writeLines(ByteAssembler& out, const Tables& tables, Sections& sections) const;
    void writeClassData(ByteAssembler& out, const Tables& tables, Sections& sections) const;

    std::vector<Class> m_classes;
};

} // namespace orn_test

#endif

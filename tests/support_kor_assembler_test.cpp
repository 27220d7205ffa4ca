// The assemblers of GPU debug files against files written by hand, byte for byte.

#include "support/kor_assembler.h"

#include <gtest/gtest.h>

using orn_test::KorIsaAssembler;
using orn_test::LunAssembler;
using orn_test::TavAssembler;
using Bytes = std::vector<uint8_t>;

TEST(TavAssembler, AFileIsTheOneWrittenByHand) {
    TavAssembler tav;
    tav.limitA = 0x11;
    tav.limitB = 0x12;
    tav.alignment = 0x10;
    tav.stringPadding = 1;
    tav.dataPadding = 2;
    tav.firstString("o").sourceFile("a.cl").kernel("k").kernel("m");
    tav.lines(1, {{0x20, 0x010203, 7, 0}, {0x30, 5, 9, 1}});
    const Bytes expected = {
        // clang-format off
        0, 0, 0, 0,
        0xfc, 0x03, 0, 0,              // 04 version
        0, 0, 0, 0,
        12, 0, 0, 0,                   // 0c size of the strings
        0, 0, 0, 0,
        6, 0, 0, 0,                    // 14 from the second count to the records
        0x11, 0, 0, 0,                 // 18 limits
        0x12, 0, 0, 0,
        0x10, 0, 0, 0,                 // 20 alignment
        2, 0, 0, 0,                    // 24 kernels
        1, 0, 0, 0,                    // 28 records
        'o', 0,                        // 2c strings
        'a', '.', 'c', 'l', 0,
        'k', 0,
        'm', 0,
        0,
        1, 0, 0, 0,                    // first group
        1, 0, 0, 0,                    // source files
        0, 0,
        1, 0, 0, 0,                    // record: kernel
        0, 0, 0, 0, 0, 0, 0, 0,
        2, 0, 0, 0,                    // rows
        0x20, 0, 0, 0, 0x03, 0x02, 0x01, 7, 0, 0, 0, 0,
        0x30, 0, 0, 0, 5, 0, 0, 9, 1, 0, 0, 0,
        // clang-format on
    };
    EXPECT_EQ(tav.build(), expected);
}

TEST(TavAssembler, StatedValuesStandInPlaceOfTheTruth) {
    TavAssembler tav;
    tav.kernel("k").lines(0, {});
    tav.version = 0xffffffff;
    tav.stringTableSize = 0x101;
    tav.kernelDataOffset = 0x102;
    tav.numberOfKernels = 0x103;
    tav.numberOfKernelData = 0x104;
    tav.firstGroup = 0x105;
    tav.sourceFiles = 0x106;
    tav.lineCount = 0x107;
    const Bytes expected = {
        // clang-format off
        0, 0, 0, 0, 0xff, 0xff, 0xff, 0xff, 0, 0, 0, 0, 0x01, 0x01, 0, 0, 0, 0, 0, 0, 0x02, 0x01, 0, 0,
        0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x03, 0x01, 0, 0, 0x04, 0x01, 0, 0,
        'k', 0, 0x05, 0x01, 0, 0, 0x06, 0x01, 0, 0,
        0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x07, 0x01, 0, 0,
        // clang-format on
    };
    EXPECT_EQ(tav.build(), expected);
}

TEST(LunAssembler, AFileIsTheOneWrittenByHand) {
    LunAssembler lun;
    lun.limitA = 0x11;
    lun.limitB = 0x12;
    lun.alignment = 0x10;
    lun.kernel("kernl", {0xA1, 0xA2, 0xA3}, {0xB1}).kernel("four", {}, {0xB2}, 9);
    const Bytes expected = {
        // clang-format off
        0, 0, 0, 0,
        0x1b, 0x04, 0, 0,              // 04 version
        0, 0, 0, 0,
        0x11, 0, 0, 0,                 // 0c limits
        0x12, 0, 0, 0,
        0x10, 0, 0, 0,                 // 14 alignment
        2, 0, 0, 0,                    // 18 kernels
        5, 0, 0, 0, 3, 0, 0, 0, 1, 0, 0, 0,
        'k', 'e', 'r', 'n', 'l', 0, 0, 0,
        0xA1, 0xA2, 0xA3,
        0xB1,
        9, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0,
        'f', 'o', 'u', 'r',
        0xB2,
        // clang-format on
    };
    EXPECT_EQ(lun.build(), expected);
    lun.numberOfKernels = 0x102;
    EXPECT_EQ(lun.build()[0x18], 0x02);
    EXPECT_EQ(lun.build()[0x19], 0x01);
}

TEST(KorIsaAssembler, AStreamIsTheOneWrittenByHand) {
    KorIsaAssembler isa;
    isa.object("k", {{1, 0x10}, {2, 0x20}});
    isa.object("fn", {{3, 0x30}}, 0x40, true);
    const Bytes expected = {
        // clang-format off
        0x10, 0xD0, 0xAD, 0xDE,
        2, 0,
        1, 'k',
        0, 0, 0, 0,                    // a kernel
        0, 0, 0, 0,                    // first map
        2, 0, 0, 0, 1, 0, 0, 0, 0x10, 0, 0, 0, 2, 0, 0, 0, 0x20, 0, 0, 0,
        0, 0, 0, 0,                    // variables
        0, 0,                          // sub-routines
        0xEE, 0xEE,
        0, 0, 0,                       // frame slots
        0, 0, 0, 0,                    // registers, two lists
        2, 'f', 'n',
        0x40, 0, 0, 0,                 // a callee
        1, 0, 0, 0, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE,
        1, 0, 0, 0, 3, 0, 0, 0, 0x30, 0, 0, 0,
        1, 0, 0, 0, 3, 'v', 'a', 'r',
        2, 0,
        0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE,
        0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE,
        1, 0, 3, 's', 'u', 'b', 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE,
        2, 0,
        0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE,
        0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE,
        0xEE, 0xEE,
        0,
        1, 2, 0,
        0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE,
        0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE,
        0,
        1, 0, 0xEE, 0xEE, 0xEE, 0xEE, 2, 0,
        0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE,
        0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE,
        1, 0, 0xEE, 0xEE, 0xEE, 0xEE, 2, 0,
        0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE,
        0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE,
        // clang-format on
    };
    EXPECT_EQ(isa.build(), expected);
    isa.magic = 1;
    isa.numCompiledObjects = 0x203;
    EXPECT_EQ(isa.build()[0], 1);
    EXPECT_EQ(isa.build()[4], 3);
    EXPECT_EQ(isa.build()[5], 2);
}

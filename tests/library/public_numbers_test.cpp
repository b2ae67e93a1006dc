// The numbers behind the names of the public headers, which programs built with an earlier library have in them.
#include "qtrace_columns.h"
#include "qtrace_reader.h"
#include "qtrace_schema.h"

#include <gtest/gtest.h>

#include <vector>

namespace
{

using Numbers = std::vector<uint64_t>;

} // namespace

TEST(public_numbers, of_items_and_of_causes_ascend_from_0)
{
    EXPECT_EQ((Numbers{QTRACE_ITEM_END, QTRACE_ITEM_HEADER, QTRACE_ITEM_RECORD, QTRACE_ITEM_DISCONTINUITY,
                       QTRACE_ITEM_ERROR}),
              (Numbers{0, 1, 2, 3, 4}));
    EXPECT_EQ((Numbers{QTRACE_CAUSE_PAUSE, QTRACE_CAUSE_REFUSED, QTRACE_CAUSE_LEFT_OUT, QTRACE_CAUSE_DAMAGE,
                       QTRACE_CAUSE_CUT_END}),
              (Numbers{0, 1, 2, 3, 4}));
}

TEST(public_numbers, of_kinds_are_bits)
{
    EXPECT_EQ((Numbers{QTRACE_KIND_LOAD, QTRACE_KIND_STORE, QTRACE_KIND_BRANCH, QTRACE_KIND_TAKEN,
                       QTRACE_KIND_STRING, QTRACE_KIND_CALL, QTRACE_KIND_RETURN, QTRACE_KIND_SYSTEM_CALL,
                       QTRACE_KIND_CACHE, QTRACE_KIND_ERROR}),
              (Numbers{0x1, 0x2, 0x4, 0x8, 0x10, 0x20, 0x40, 0x80, 0x100, 0x200}));
}

TEST(public_numbers, of_columns_are_bits)
{
    EXPECT_EQ((Numbers{QTRACE_COLUMN_ADDRESS, QTRACE_COLUMN_HAS_ADDRESS, QTRACE_COLUMN_NEXT, QTRACE_COLUMN_HAS_NEXT,
                       QTRACE_COLUMN_DATA, QTRACE_COLUMN_HAS_DATA, QTRACE_COLUMN_WORD, QTRACE_COLUMN_FLAGS,
                       QTRACE_COLUMN_DATA_TRANSLATION, QTRACE_COLUMN_NEXT_TRANSLATION, QTRACE_COLUMN_CONTEXT,
                       QTRACE_COLUMN_NODE, QTRACE_COLUMN_TERMINATION_NODE, QTRACE_COLUMN_TERMINATION,
                       QTRACE_COLUMN_ERROR, QTRACE_COLUMN_PROCESSOR, QTRACE_COLUMN_LENGTH, QTRACE_COLUMN_KINDS}),
              (Numbers{0x1, 0x2, 0x4, 0x8, 0x10, 0x20, 0x40, 0x80, 0x100, 0x200, 0x400, 0x800, 0x1000, 0x2000,
                       0x4000, 0x8000, 0x10000, 0x20000}));
    EXPECT_EQ(QTRACE_COLUMN_ALL, 0x3FFFF);
    EXPECT_EQ(QTRACE_NO_CONTEXT, 0xFFFFFFFFu);
}

TEST(public_numbers, of_translations_are_bits)
{
    EXPECT_EQ((Numbers{QTRACE_TRANSLATION_VSID, QTRACE_TRANSLATION_RPN, QTRACE_TRANSLATION_PAGE_SIZE,
                       QTRACE_TRANSLATION_GUEST_PAGE_SIZE}),
              (Numbers{1, 2, 4, 8}));
}

TEST(public_numbers, of_register_classes_ascend_from_0)
{
    EXPECT_EQ((Numbers{QTRACE_CLASS_GPR, QTRACE_CLASS_FPR, QTRACE_CLASS_VMXR, QTRACE_CLASS_VSXR, QTRACE_CLASS_SPR,
                       QTRACE_CLASSES}),
              (Numbers{0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(QTRACE_MAX_REGISTERS, 90) << "32 + 3 + 3 + 3 + 4, read and written";
}

TEST(public_numbers, of_shapes_and_of_flags_ascend_from_0)
{
    EXPECT_EQ((Numbers{QTRACE_SHAPE_DECIMAL, QTRACE_SHAPE_HEXADECIMAL, QTRACE_SHAPE_ADDRESS, QTRACE_SHAPE_VSID,
                       QTRACE_SHAPE_HOST_WALKS, QTRACE_SHAPE_HOST_ADDRESSES, QTRACE_SHAPE_GUEST_WALK,
                       QTRACE_SHAPE_REGISTERS, QTRACE_SHAPE_TEXT}),
              (Numbers{0, 1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ((Numbers{QTRACE_FLAG_GATE, QTRACE_FLAG_MARK, QTRACE_FLAG_MODE, QTRACE_FLAG_HEADER_ONLY,
                       QTRACE_FLAG_UNUSED, QTRACE_FLAG_RESERVED}),
              (Numbers{0, 1, 2, 3, 4, 5}));
}

// Obj: what its users rely on: type-strict comparison, the raw byte order,
// string ownership, the text forms and the checked accessors.
#include <gtest/gtest.h>

#include "VideoConsoleCore.h"

namespace VideoConsoleCore {
namespace {

TEST(Obj, ComparesByTypeThenValue) {
    struct Row {
        Obj a, b;
        bool equal, less;
    };
    const Row rows[] = {
        {Obj(5), Obj(5u), false, true},               // int below unsigned
        {Obj(), Obj(), true, false},                  // nil == nil
        {Obj(), Obj(false), false, true},             // nil below everything
        {Obj(256), Obj(1), false, true},              // raw bytes: 00 01.. < 01 00..
        {Obj(-1), Obj(1), false, false},              // FF.. is not below 01..
        {Obj(1.5), Obj(2), false, false},             // double (6) above int (1)
        {Obj("abc"), Obj("abd"), false, true},        // texts by strcmp
        {Obj("abc"), Obj(const_cast<char*>("abc")), true, false},
        {Obj(int64_t{1} << 40), Obj(int64_t{1} << 40), true, false},
        {Obj(true), Obj(true), true, false},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.a.ToStr() + " vs " + r.b.ToStr());
        EXPECT_EQ(r.a == r.b, r.equal);
        EXPECT_EQ(r.a != r.b, !r.equal);
        EXPECT_EQ(r.a < r.b, r.less);
    }
}

TEST(Obj, CopiesOwnTheirText) {
    Obj source("hello");
    {
        Obj copy(source);
        Obj assigned(3);
        assigned = source;
        EXPECT_NE(copy.GetStr(), source.GetStr());
        EXPECT_NE(assigned.GetStr(), source.GetStr());
    }
    EXPECT_STREQ(source.GetStr(), "hello");
    source._Tidy();
    EXPECT_EQ(source.GetType(), Obj::kNil);
    EXPECT_EQ(source, Obj::NIL);

    Obj number(42);
    number._Tidy();  // not a string: stays
    EXPECT_EQ(static_cast<int>(number), 42);
}

TEST(Obj, CheckedAccessorsThrowOnAnotherType) {
    const Obj number(7);
    EXPECT_EQ(static_cast<int>(number), 7);
    try {
        (void)static_cast<double>(number);
        FAIL() << "no exception";
    } catch (const NumBaseException& e) {
        EXPECT_STREQ(e.what(), "Obj type not match");
    }
    EXPECT_THROW((void)number.GetStr(), NumBaseException);
    EXPECT_THROW((void)Obj("x").GetPtr(), NumBaseException);
    EXPECT_THROW((void)static_cast<bool>(Obj()), NumBaseException);
    EXPECT_EQ(number, Obj(7));  // unchanged

    EXPECT_NO_THROW(NUM_ENSURE(true, "never %d", 1));
    try {
        NUM_EXCEPT("device %d of %s", 2, "three");
    } catch (const NumBaseException& e) {
        EXPECT_STREQ(e.what(), "device 2 of three");
    }
}

}  // namespace
}  // namespace VideoConsoleCore

// Data objects: what the four calls answer, and what they write. They need no PIN, so most rows use
// the record whose PIN is not verified.
#include "store/store.h"
#include "tests/support/answers.h"

#include <limits.h>

using DataObjectsTest = AnswersTest;

TEST_F(DataObjectsTest, AreCreated) {
  EXPECT_REFUSED(-2, DeviceCreateData(nullptr, 0, 0, 0));
  for (const int id : {0, -1}) EXPECT_REFUSED(-1, DeviceCreateData(closed_, id, 0, 4));
  for (const int length : {0, -1}) EXPECT_REFUSED(-1, DeviceCreateData(closed_, 5, 0, length));
  EXPECT_WRITTEN(DeviceCreateData(closed_, 5, 77, 10));
  EXPECT_REFUSED(-6, DeviceCreateData(closed_, 5, 0, 9));
  EXPECT_DONE(DeviceReadDataEx(device_.get(), 5, 0, out_, 600, &size_));
  EXPECT_EQ(Bytes(out_, 11), std::string(10, '\0') + '.');
}

TEST_F(DataObjectsTest, AreWrittenWithinTheirBounds) {
  const unsigned char* const bytes = Raw("0123456789eeee");
  EXPECT_WRITTEN(DeviceCreateData(closed_, 5, 0, 10));
  EXPECT_REFUSED(-2, DeviceWriteDataEx(nullptr, 0, 0, bytes, 0));
  EXPECT_REFUSED(-1, DeviceWriteDataEx(closed_, 0, 0, bytes, 4));
  for (const int length : {0, -1})
    EXPECT_REFUSED(-1, DeviceWriteDataEx(closed_, 5, 0, bytes, length));
  EXPECT_REFUSED(-1, DeviceWriteDataEx(closed_, 5, 0, nullptr, 4));
  EXPECT_REFUSED(-7, DeviceWriteDataEx(closed_, 6, 0, bytes, 4));
  const std::pair<int, int> outside[] = {{7, 4},  {0, 11},      {10, 1},     {11, 1},
                                         {-1, 4}, {INT_MAX, 4}, {1, INT_MAX}};
  for (const auto& [offset, length] : outside)
    EXPECT_REFUSED(-21, DeviceWriteDataEx(closed_, 5, offset, bytes, length));
  EXPECT_WRITTEN(DeviceWriteDataEx(closed_, 5, 0, bytes, 10));
  EXPECT_WRITTEN(DeviceWriteDataEx(closed_, 5, 6, bytes + 10, 4));
  EXPECT_DONE(DeviceReadDataEx(closed_, 5, 0, out_, 600, &size_));
  EXPECT_EQ(Bytes(out_, 11), "012345eeee.");
}

TEST_F(DataObjectsTest, AreReadWithinTheirBounds) {
  EXPECT_WRITTEN(DeviceCreateData(closed_, 5, 0, 10));
  EXPECT_WRITTEN(DeviceWriteDataEx(closed_, 5, 0, Raw("012345eeee"), 10));
  EXPECT_REFUSED(-2, DeviceReadDataEx(nullptr, 0, 0, out_, 8, &size_));
  EXPECT_REFUSED(-1, DeviceReadDataEx(closed_, 0, 0, out_, 8, &size_));
  EXPECT_REFUSED(-7, DeviceReadDataEx(closed_, 6, 0, out_, 8, &size_));
  for (const int offset : {11, -1, INT_MAX})
    EXPECT_REFUSED(0, DeviceReadDataEx(closed_, 5, offset, out_, 8, &size_));

  const struct {
    int offset, size;
    std::string want;
  } rows[] = {{0, 600, "012345eeee"},
              {0, 4, "0123"},
              {4, 4, "45ee"},
              {9, 8, "e"},
              {10, 8, ""},
              {0, 0, ""},
              {0, -1, ""}};
  for (const auto& row : rows) {
    EXPECT_DONE(DeviceReadDataEx(closed_, 5, row.offset, out_, row.size, &size_));
    EXPECT_EQ(Bytes(out_, size_ + 1), row.want + '.') << row.offset << ", " << row.size;
  }
  EXPECT_DONE(DeviceReadDataEx(closed_, 5, 4, nullptr, 0, &size_));
  EXPECT_EQ(size_, 6u) << "what is left, without a buffer";
  EXPECT_DONE(DeviceReadDataEx(closed_, 5, 4, nullptr, 0, nullptr));
}

TEST_F(DataObjectsTest, AreDeleted) {
  EXPECT_WRITTEN(DeviceCreateData(closed_, 5, 0, 10));
  EXPECT_REFUSED(-2, DeviceDeleteData(nullptr, 0));
  EXPECT_REFUSED(-1, DeviceDeleteData(closed_, 0));
  EXPECT_WRITTEN(DeviceDeleteData(closed_, 5));
  EXPECT_REFUSED(-7, DeviceDeleteData(closed_, 5));
}

// The text of the file, change by change.
TEST_F(DataObjectsTest, AreWrittenBesideTheRest) {
  Device* const other = device_.get();  // a record of the same file
  WriteText(R"(["0123456789","abc",[["unknown",1.50]]])");
  EXPECT_CHANGE("]]]", R"(]],[[5,4,0,0,"00000000"]]])", DeviceCreateData(closed_, 5, 77, 4));
  EXPECT_CHANGE("00000000", "00006162", DeviceWriteDataEx(closed_, 5, 2, Raw("ab"), 2));
  EXPECT_CHANGE("00006162", "63646162", DeviceWriteDataEx(other, 5, 0, Raw("cd"), 2));
  EXPECT_CHANGE("]]]", R"(],[7,1,0,0,"00"]]])", DeviceCreateData(closed_, 7, 0, 1));
  EXPECT_CHANGE("]]]", R"(],[1,1,0,0,"00"]]])", DeviceCreateData(closed_, 1, 0, 1));
  EXPECT_CHANGE(R"([7,1,0,0,"00"],)", "", DeviceDeleteData(closed_, 7));
  EXPECT_CHANGE("]]]", R"(],[2147483647,1,0,0,"00"]]])", DeviceCreateData(closed_, INT_MAX, 0, 1));
  EXPECT_CHANGE(R"([5,4,0,0,"63646162"],)", "", DeviceDeleteData(closed_, 5));
  EXPECT_CHANGE(R"(,[2147483647,1,0,0,"00"])", "", DeviceDeleteData(closed_, INT_MAX));
  EXPECT_CHANGE(R"([[1,1,0,0,"00"]])", "[]", DeviceDeleteData(closed_, 1));
}

TEST_F(DataObjectsTest, KeepTheirReservedNumbersAndDropWhatStandsBehindTheList) {
  WriteText(R"(["a","b",[],[[9,2,-3,4,"6162"],[1,1,0,0,"00"]],"dropped"])");
  EXPECT_CHANGE(R"("00"]],"dropped"])", R"("61"]]])",
                DeviceWriteDataEx(closed_, 1, 0, Raw("a"), 1));
  EXPECT_DONE(DeviceReadDataEx(closed_, 9, 0, out_, 600, &size_));
  EXPECT_EQ(Bytes(out_, size_ + 1), "ab.");
}

TEST_F(DataObjectsTest, ThatDoNotParseAreRefusedWhole) {
  for (const char* list :
       {R"("")", R"({})", R"([5])", R"([[5,1,0,0]])", R"([["5",1,0,0,"00"]])",
        R"([[5,"1",0,0,"00"]])", R"([[5,1,"0",0,"00"]])", R"([[5,1,0,null,"00"]])",
        R"([[5,1,0,0,7]])", R"([[5,2,0,0,"00"]])", R"([[5,0,0,0,"00"]])", R"([[5,1,0,0,"0"]])",
        R"([[5,1,0,0,"zz"]])", R"([[5,-1,0,0,""]])", R"([[7,1,0,0,"00"],[5,1,0,0,"0000"]])",
        "no JSON"}) {
    SCOPED_TRACE(list);
    WriteText(std::string(R"(["a","b",[],)") + list + "]");
    EXPECT_REFUSED(0, DeviceCreateData(closed_, 8, 0, 4));
    EXPECT_REFUSED(0, DeviceReadDataEx(closed_, 7, 0, out_, 600, &size_));
    EXPECT_REFUSED(0, DeviceWriteDataEx(closed_, 7, 0, Raw("a"), 1));
    EXPECT_REFUSED(0, DeviceDeleteData(closed_, 7));
  }
}

TEST_F(DataObjectsTest, NeedATextThatIsADevice) {
  for (const char* text : {"{}", R"(["a","b"])"}) {
    WriteText(text);
    EXPECT_REFUSED(0, DeviceCreateData(closed_, 7, 0, 1));
  }
}

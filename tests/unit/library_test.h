/** @file What the tests of the library's units share, and name without a prefix. */
#ifndef TESTS_UNIT_LIBRARY_TEST_H
#define TESTS_UNIT_LIBRARY_TEST_H

#include "expect_error.h"
#include "log_lines.h"
#include "temporary_directory.h"

#include <gmock/gmock.h>

namespace tarn::dataupdate {

using test::EntriesBelow;
using test::ErrorOf;
using test::Line;
using test::LinesOf;
using test::MessageOf;
using test::ReadFile;
using test::WriteFile;
using testing::_;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::InSequence;
using testing::IsEmpty;
using testing::NiceMock;
using testing::Not;
using testing::Return;
using testing::StartsWith;
using testing::StrictMock;
using testing::Throw;
using testing::UnorderedElementsAre;

} // namespace tarn::dataupdate

#endif

// What nearly every test instantiates of GoogleTest. The templates are compiled once, in
// gtest_templates.cpp: they were a sixth of the code of all tests.
#ifndef TESTS_SUPPORT_GTEST_TEMPLATES_H_
#define TESTS_SUPPORT_GTEST_TEMPLATES_H_

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#ifndef QV_TEMPLATE
#define QV_TEMPLATE extern template
#endif

namespace testing {
namespace internal {
using Text = std::string;
using Texts = std::vector<std::string>;
using Pointer = void*;
template <std::size_t kSize>
using Literal = char[kSize];
}  // namespace internal

QV_TEMPLATE std::string PrintToString(const internal::Text&);
QV_TEMPLATE std::string PrintToString(const internal::Texts&);
QV_TEMPLATE std::string PrintToString(const std::optional<internal::Text>&);
QV_TEMPLATE std::string PrintToString(const std::nullopt_t&);
QV_TEMPLATE std::string PrintToString(const std::nullptr_t&);
QV_TEMPLATE std::string PrintToString(const char* const&);
QV_TEMPLATE std::string PrintToString(const void* const&);
QV_TEMPLATE std::string PrintToString(void* const&);
QV_TEMPLATE std::string PrintToString(const bool&);
QV_TEMPLATE std::string PrintToString(const char&);
QV_TEMPLATE std::string PrintToString(const int&);
QV_TEMPLATE std::string PrintToString(const long&);
QV_TEMPLATE std::string PrintToString(const unsigned&);
QV_TEMPLATE std::string PrintToString(const unsigned long&);
QV_TEMPLATE std::string PrintToString(const double&);

namespace internal {

QV_TEMPLATE void PrintWithFallback(const Texts&, std::ostream*);

// --- EXPECT_EQ and the like ---

#define QV_COMPARISON(function, Left, Right)                                               \
  QV_TEMPLATE AssertionResult function<Left, Right>(const char*, const char*, const Left&, \
                                                    const Right&)
#define QV_EQUALITY(Left, Right)                               \
  QV_COMPARISON(CmpHelperEQ, Left, Right);                     \
  QV_COMPARISON(CmpHelperNE, Left, Right);                     \
  QV_TEMPLATE AssertionResult CmpHelperOpFailure<Left, Right>( \
      const char*, const char*, const Left&, const Right&, const char*)
#define QV_ORDER(Left, Right)              \
  QV_EQUALITY(Left, Right);                \
  QV_COMPARISON(CmpHelperLT, Left, Right); \
  QV_COMPARISON(CmpHelperLE, Left, Right); \
  QV_COMPARISON(CmpHelperGT, Left, Right); \
  QV_COMPARISON(CmpHelperGE, Left, Right)

QV_ORDER(int, int);
QV_ORDER(long, int);
QV_ORDER(long, long);
QV_ORDER(unsigned, unsigned);
QV_ORDER(unsigned long, unsigned long);
QV_ORDER(unsigned long, unsigned);
QV_ORDER(unsigned long, int);
QV_EQUALITY(bool, bool);
QV_EQUALITY(char, char);
QV_EQUALITY(Pointer, std::nullptr_t);
QV_EQUALITY(Text, Text);
QV_EQUALITY(Texts, Texts);
QV_EQUALITY(Text, Literal<1>);
QV_EQUALITY(Text, Literal<2>);
QV_EQUALITY(Text, Literal<3>);
QV_EQUALITY(Text, Literal<4>);
QV_EQUALITY(Text, Literal<5>);
QV_EQUALITY(Text, Literal<6>);
QV_EQUALITY(Text, Literal<7>);
QV_EQUALITY(Text, Literal<8>);
QV_EQUALITY(Text, Literal<9>);
QV_EQUALITY(Text, Literal<10>);
QV_EQUALITY(Text, Literal<11>);
QV_EQUALITY(Text, Literal<12>);

#undef QV_ORDER
#undef QV_EQUALITY
#undef QV_COMPARISON

// --- EXPECT_THAT of a string, and of a vector of strings ---

QV_TEMPLATE class MatcherBase<const Text&>;
QV_TEMPLATE class MatcherBase<const Texts&>;
QV_TEMPLATE class ElementsAreMatcherImpl<const Texts&>;
QV_TEMPLATE class UnorderedElementsAreMatcherImpl<const Texts&>;
QV_TEMPLATE class ContainsMatcherImpl<const Texts&>;
QV_TEMPLATE class EachMatcherImpl<const Texts&>;
QV_TEMPLATE class QuantifierMatcherImpl<const Texts&>;
QV_TEMPLATE class AllOfMatcherImpl<const Text&>;

QV_TEMPLATE bool MatchPrintAndExplain(const Text&, const Matcher<const Text&>&,
                                      MatchResultListener*);
QV_TEMPLATE bool MatchPrintAndExplain(const Texts&, const Matcher<const Texts&>&,
                                      MatchResultListener*);

#define QV_THAT(Value, ...)                                                           \
  QV_TEMPLATE AssertionResult PredicateFormatterFromMatcher<__VA_ARGS__>::operator()( \
      const char*, const Value&) const
QV_THAT(Texts, IsEmptyMatcher);
QV_THAT(Texts, ElementsAreMatcher<std::tuple<Text>>);
QV_THAT(Texts, ElementsAreMatcher<std::tuple<Text, Text>>);
QV_THAT(Texts, ElementsAreMatcher<std::tuple<const char*>>);
QV_THAT(Texts, ElementsAreMatcher<std::tuple<const char*, const char*>>);
QV_THAT(Texts, ElementsAreMatcher<std::tuple<const char*, const char*, const char*>>);
QV_THAT(Texts, ContainsMatcher<Text>);
QV_THAT(Texts, ContainsMatcher<const char*>);
QV_THAT(Text, PolymorphicMatcher<HasSubstrMatcher<Text>>);
QV_THAT(Text, PolymorphicMatcher<StartsWithMatcher<Text>>);
QV_THAT(Text, PolymorphicMatcher<EndsWithMatcher<Text>>);
QV_THAT(Text, PolymorphicMatcher<MatchesRegexMatcher>);
#undef QV_THAT

}  // namespace internal
}  // namespace testing

#endif  // TESTS_SUPPORT_GTEST_TEMPLATES_H_

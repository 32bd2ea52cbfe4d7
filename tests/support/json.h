// JSON for tests. What each of them would compile of the library for itself is compiled once, in
// json.cpp.
#ifndef TESTS_SUPPORT_JSON_H_
#define TESTS_SUPPORT_JSON_H_

#include <istream>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>

#ifndef QV_TEMPLATE
#define QV_TEMPLATE extern template
#endif

// NOLINTNEXTLINE(bugprone-macro-parentheses): a type stands in no parentheses
#define QV_PARSER(Json, Input)                                                \
  QV_TEMPLATE class nlohmann::detail::lexer<Json, Input>;                     \
  QV_TEMPLATE class nlohmann::detail::parser<Json, Input>;                    \
  QV_TEMPLATE bool nlohmann::detail::parser<Json, Input>::sax_parse_internal( \
      nlohmann::detail::json_sax_dom_parser<Json>*);                          \
  QV_TEMPLATE bool nlohmann::detail::parser<Json, Input>::sax_parse_internal( \
      nlohmann::detail::json_sax_dom_callback_parser<Json>*)
#define QV_JSON(Json)                                                                     \
  QV_TEMPLATE class nlohmann::detail::serializer<Json>;                                   \
  QV_TEMPLATE class nlohmann::detail::json_sax_dom_parser<Json>;                          \
  QV_TEMPLATE class nlohmann::detail::json_sax_dom_callback_parser<Json>;                 \
  QV_PARSER(Json, nlohmann::detail::input_stream_adapter);                                \
  QV_PARSER(Json, nlohmann::detail::iterator_input_adapter<std::string::const_iterator>); \
  QV_TEMPLATE Json Json::parse(std::string&, const Json::parser_callback_t, bool, bool);  \
  QV_TEMPLATE Json Json::parse(std::string&&, const Json::parser_callback_t, bool, bool); \
  QV_TEMPLATE Json Json::parse(const std::string&, const Json::parser_callback_t, bool, bool)

QV_TEMPLATE class nlohmann::basic_json<>;
QV_JSON(nlohmann::json);

#undef QV_JSON
#undef QV_PARSER

#endif  // TESTS_SUPPORT_JSON_H_

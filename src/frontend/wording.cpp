// How each front end spells options, and the warnings about parameters
// outside their meaningful ranges: one text per message, worded per front end.
#include <cstdlib>
#include <sstream>

#include "driver/driver.hpp"
#include "splitmerge/frontend.hpp"

#ifndef SPLITMERGE_VERSION
#error "the build defines SPLITMERGE_VERSION"
#endif

namespace splitmerge::frontend {

namespace {

std::string number_text(double v) {
  std::ostringstream s;
  s << v;
  return s.str();
}

// Numbers, and the one-letter placeholders of messages ("slice=K"), are
// written without quotes.
bool is_number(const std::string& text) {
  if (text.size() == 1 && text[0] >= 'A' && text[0] <= 'Z') return true;
  if (text.empty()) return false;
  char* end = nullptr;
  std::strtod(text.c_str(), &end);
  return end == text.c_str() + text.size();
}

std::string option_with_value(std::string_view name, const std::string& value, spelling how) {
  // smsegment takes no slice option: one slice is I(:, :, K).
  if (how == spelling::matlab && name == "slice") return "I(:, :, " + value + ")";
  const std::string option = option_name(name, how);
  switch (how) {
    case spelling::command_line:
      return value == "true" ? option : option + " " + value;
    case spelling::python:
      if (value == "true" || value == "false")
        return option + "=" + (value == "true" ? "True" : "False");
      return option + "=" + (is_number(value) ? value : "'" + value + "'");
    case spelling::matlab:
      return "'" + option + "', " +
             (is_number(value) || value == "true" || value == "false" ? value : "'" + value + "'");
    case spelling::library:
      break;
  }
  return option + " = " + value;
}

}  // namespace

const char* version() noexcept { return SPLITMERGE_VERSION; }

std::string option_name(std::string_view parameter, spelling how) {
  std::string out;
  switch (how) {
    case spelling::library:
    case spelling::python:
      return std::string(parameter);
    case spelling::command_line:
      out = "--";
      for (const char c : parameter) out += c == '_' ? '-' : c;
      return out;
    case spelling::matlab:
      if (parameter == "group_mode") return "Grouping";
      if (parameter == "pred_choice") return "Predicate";
      for (std::size_t i = 0; i < parameter.size(); ++i) {
        if (parameter[i] == '_') continue;
        const bool first = i == 0 || parameter[i - 1] == '_';
        out += first ? static_cast<char>(parameter[i] - 'a' + 'A') : parameter[i];
      }
      return out;
  }
  return std::string(parameter);
}

std::string worded(std::string_view text, spelling how) {
  if (how == spelling::library) return library_wording(text);
  std::string out;
  std::size_t at = 0;
  while (at < text.size()) {
    const std::size_t open = text.find('{', at);
    const std::size_t close = open == std::string_view::npos ? open : text.find('}', open);
    if (close == std::string_view::npos) {
      out.append(text.substr(at));
      break;
    }
    out.append(text.substr(at, open - at));
    const std::string_view inner = text.substr(open + 1, close - open - 1);
    const std::size_t equals = inner.find('=');
    if (equals == std::string_view::npos) {
      const char* quote = how == spelling::matlab ? "'" : "";
      out.append(quote).append(option_name(inner, how)).append(quote);
    } else {
      out += option_with_value(inner.substr(0, equals), std::string(inner.substr(equals + 1)), how);
    }
    at = close + 1;
  }
  return out;
}

const std::vector<std::string_view>& parameter_names() {
  static const std::vector<std::string_view> names = {
      "max_level",     "lim_oct_level", "init_level",      "group_mode",      "max_seed",
      "use_all_seeds", "pred_choice",   "interval_length", "rejection",       "sigma",
      "threshold_row", "pseudo_factor", "small_size",      "statistic_update"};
  return names;
}

std::string parameter_text(const parameters& p, std::string_view name) {
  const std::int32_t whole[] = {p.max_level,
                                p.lim_oct_level,
                                p.init_level,
                                p.group_mode,
                                p.max_seed,
                                p.use_all_seeds,
                                p.pred_choice,
                                p.interval_length,
                                0,
                                0,
                                p.threshold_row,
                                0,
                                p.small_size,
                                p.statistic_update};
  const auto& names = parameter_names();
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (names[i] != name) continue;
    if (name == "rejection") return number_text(p.rejection);
    if (name == "sigma") return number_text(p.sigma);
    if (name == "pseudo_factor") return number_text(p.pseudo_factor);
    return std::to_string(whole[i]);
  }
  return {};
}

std::vector<problem> range_warnings(const parameters& p) {
  std::vector<problem> out;
  const auto warn = [&out, &p](const char* name, const char* range) {
    std::string text = "{";
    text.append(name).append("=").append(parameter_text(p, name));
    text.append("} is outside its meaningful range (").append(range);
    text.append("); running with it as given");
    out.push_back({problem_kind::none, name, std::move(text)});
  };
  const auto flag = [&warn](const char* name, std::int32_t v) {
    if (v != 0 && v != 1) warn(name, "0 or 1; other values act as 1");
  };
  flag("group_mode", p.group_mode);
  flag("use_all_seeds", p.use_all_seeds);
  flag("statistic_update", p.statistic_update);
  if (p.interval_length < 0) warn("interval_length", "0 or more");
  if (!(p.rejection >= 0.0 && p.rejection <= 1.0)) warn("rejection", "0 to 1");
  if (!(p.sigma > 0.0)) warn("sigma", "above 0");
  if (!(p.pseudo_factor >= 0.0)) warn("pseudo_factor", "0 or more");
  if (p.small_size < 0) warn("small_size", "0 or more");
  return out;
}

}  // namespace splitmerge::frontend

#include "qvutil/commands/plot.h"

#include <string>

#include "qvutil/output/json.h"
#include "qvutil/output/new_file.h"
#include "qvutil/output/text.h"
#include "qvutil/report/gnuplot.h"
#include "qvutil/report/html.h"

namespace quorvane::tool {
namespace {

enum class Form { svg, png, html };

Form form_of(const std::string& path) {
  const auto ends_in = [&](const char* suffix) { return path.ends_with(suffix); };
  if (ends_in(".svg")) {
    return Form::svg;
  }
  if (ends_in(".png")) {
    return Form::png;
  }
  if (ends_in(".html")) {
    return Form::html;
  }
  throw Failure("the name of the output must end in .svg, .png or .html: " + shown(path));
}

std::string picture_of(const std::vector<Panel>& panels, Form form) {
  if (form == Form::html) {
    return html_page("Statistics", html_of(panels));
  }
  return run_gnuplot(plot_script(panels, form == Form::png ? PlotForm::png : PlotForm::svg));
}

}  // namespace

Outcome plot(Console& console, const PlotOptions& options) {
  const Form form = form_of(options.output);
  const Plots plots = plots_of(console, options.source);
  if (plots.panels.empty()) {
    throw Failure(
        "nothing to plot: it takes two reports of a process, in different seconds, or its start");
  }
  const std::string picture = picture_of(plots.panels, form);
  NewFile file(options.output);
  file.out() << picture;
  file.finish();
  if (console.json()) {
    print_json(console,
               {{"file", json_of_bytes(options.output)}, {"metrics", plots.panels.size()}});
  } else {
    console.out() << shown(options.output) << ": " << plots.panels.size() << " metrics\n";
  }
  return plots.damaged == 0 ? Outcome::fine : Outcome::found;
}

}  // namespace quorvane::tool

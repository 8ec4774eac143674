#include "tools/report/moment_markup.hpp"

#include <fmt/core.h>

#include "tools/html/page.hpp"
#include "tools/report/words.hpp"
#include "vision/text/internal/utf8.hpp"

namespace report {
namespace {

using html::escaped;

std::string place(const std::optional<double>& x, const std::optional<double>& y) {
  return x && y ? fmt::format(" at ({:.2f}, {:.2f})", *x, *y) : std::string();
}

std::string proposed(const Moment& m) {
  return m.action + place(m.x_ratio, m.y_ratio);
}

std::string right_action(const Moment& m) {
  std::string out = m.true_action + place(m.true_x, m.true_y);
  if (!m.label.empty()) out += " on “" + m.label + "”";
  if (m.comparison.distance_px) out += fmt::format(", {:.0f} px away", *m.comparison.distance_px);
  return out;
}

std::string confidence(const Moment& m) {
  return m.confidence ? fmt::format("confidence {:.2f}", *m.confidence) : "no confidence";
}

std::string when(const Moment& m) {
  return timestamp(m.ts) + (m.run ? " · run " + *m.run : "");
}

// The picture with its marks, and the same in words for readers who do not see it.
html::Screenshot shot(const Moment& m, const std::string& id, vision::Bytes png) {
  html::Screenshot out;
  out.id = id;
  out.png = std::move(png);
  out.description = "What the model saw. It proposed: " + proposed(m) + ".";
  if (m.x_ratio && m.y_ratio) {
    out.markers.push_back({*m.x_ratio, *m.y_ratio, html::Marker::Kind::proposed});
    out.caption = "Ring: the proposal.";
  }
  if (!m.true_x || !m.true_y) return out;
  out.description += " Right was: " + right_action(m) + ".";
  if (m.true_w && m.true_h) {
    out.area = html::Area{*m.true_x - *m.true_w / 2, *m.true_y - *m.true_h / 2, *m.true_w, *m.true_h};
    out.caption += " Dashed box: the right element.";
  } else {
    out.markers.push_back({*m.true_x, *m.true_y, html::Marker::Kind::actual});
    out.caption += " Square: the right place.";
  }
  return out;
}

std::string picture(const Moment& m, const std::string& id, PictureReader& pictures) {
  auto [png, missing] = pictures.of(m);
  if (!missing.empty()) return "<p class=\"muted missing\">" + escaped(missing) + "</p>\n";
  return html::figure(shot(m, id + "-shot", std::move(png)));
}

std::string line(const char* name, const std::string& text) {
  return std::string("<p><strong>") + name + "</strong> " + escaped(text) + "</p>\n";
}

std::string details_of(const Moment& m) {
  std::string out = line("Proposed:", proposed(m)) + line("Reason:", m.reason);
  if (!m.next_expected_state.empty()) out += line("Expected next:", m.next_expected_state);
  return out;
}

std::string agent_of(const Moment& m) {
  if (!m.agent_text) return {};
  if (m.agent_failed) return line("The agent failed:", *m.agent_text);
  return line("The agent said:", m.agent_text->empty() ? "nothing" : *m.agent_text);
}

std::string attribute(const char* name, const std::string& value) {
  return std::string(" ") + name + "=\"" + escaped(value) + "\"";
}

std::string choice(const std::string& id, const char* value, const char* key, const char* name) {
  return "<label><input type=\"radio\" name=\"" + id + "\" value=\"" + value + "\"> " + name + " <kbd>" + key +
         "</kbd></label>\n";
}

std::string breadcrumb(const Moment& step) {
  const std::string at =
      step.x_ratio && step.y_ratio ? fmt::format("({:.2f},{:.2f})", *step.x_ratio, *step.y_ratio) : "";
  return fmt::format("step {}/{}: {}{} — {}", step.step, step.max_steps, step.action, at,
                     vision::text::first_code_points(step.reason, 120));
}

}  // namespace

std::string disagreement(const Moment& m, const std::string& id, PictureReader& pictures) {
  std::string out = "<article class=\"event\" id=\"" + id + "\"><h5>" + escaped(proposed(m)) + " <small>" +
                    confidence(m) + "</small></h5><div class=\"beside\"><div>\n" + picture(m, id, pictures) +
                    "</div><div>\n";
  if (m.by_eye)
    out += line("Judged by eye:", "wrong");
  else if (!m.true_action.empty())
    out += line("Right was:", right_action(m));
  return out + details_of(m) + agent_of(m) + "<p class=\"muted\">" + escaped(when(m)) + "</p></div></div></article>\n";
}

std::string question(const Moment& m, const std::string& id, PictureReader& pictures) {
  std::string out = "<article class=\"event question\" tabindex=\"-1\" id=\"" + id + "\"" +
                    attribute("data-site", m.site) + attribute("data-ts", timestamp(m.ts)) +
                    (m.run ? attribute("data-run", *m.run) : "") + "><h5>" + escaped(proposed(m)) + " <small>" +
                    confidence(m) + "</small></h5><div class=\"beside\"><div>\n" + picture(m, id, pictures) +
                    "</div><div>\n" + details_of(m) + agent_of(m) + "<p class=\"muted\">" + escaped(when(m)) +
                    "</p>\n<fieldset hidden><legend>Was the proposal right?</legend>\n";
  out += choice(id, "agree", "A", "agree") + choice(id, "disagree", "D", "disagree") + choice(id, "skip", "S", "skip");
  return out + "</fieldset></div></div></article>\n";
}

std::string film(const Mission& mission, const std::string& id, PictureReader& pictures) {
  std::vector<html::Frame> frames;
  std::string steps;
  auto loaded = pictures.of(mission);
  for (std::size_t i = 0; i < mission.steps.size(); ++i) {
    const Moment& step = mission.steps[i];
    const std::string step_id = id + "-" + std::to_string(i + 1);
    const html::Screenshot seen = shot(step, step_id + "-shot", std::move(loaded[i].png));
    frames.push_back({seen, breadcrumb(step), step_id});
    steps += "<article class=\"event\" id=\"" + step_id + "\"><h5>" + escaped(breadcrumb(step)) + "</h5>\n" +
             (loaded[i].missing.empty() ? html::figure(seen)
                                        : "<p class=\"muted missing\">" + escaped(loaded[i].missing) + "</p>\n") +
             "<p class=\"muted\">" + confidence(step) + " · " + fmt::format("{:.0f} ms", step.latency_ms) +
             "</p></article>\n";
  }
  const std::string title = std::string(mission.ending) + ", " + counted(mission.steps_used, "step");
  return "<section class=\"mission" + std::string(mission.succeeded ? " good" : "") + "\"><h5>" + escaped(title) +
         " <small>" + escaped(when(mission.steps.front())) + "</small></h5>\n" +
         line("Last words:", mission.last_words) + html::film_strip("steps of the mission", frames) +
         "<details><summary>The steps, large</summary>\n" + steps + "</details></section>\n";
}

}  // namespace report

#pragma once

#include <string>

#include "tools/html/screenshot.hpp"
#include "tools/report/moment.hpp"
#include "tools/report/picture_reader.hpp"

/// Proposals as markup. `id` is unique on the page: letters, digits and hyphens.
namespace report {

/// A disagreement: the picture, what was proposed, and what was right.
std::string disagreement(const Moment& moment, const std::string& id, PictureReader& pictures);

/// A proposal to be judged by eye: the picture, the proposal and the agent's
/// text side by side, with the choice that the page's script makes usable.
std::string question(const Moment& moment, const std::string& id, PictureReader& pictures);

/// A mission: its strip with the breadcrumb under each picture, and its steps.
std::string film(const Mission& mission, const std::string& id, PictureReader& pictures);

}  // namespace report

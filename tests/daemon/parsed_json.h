// The status object's JSON texts, parsed for the tests that read them back.
#pragma once

#include <gtest/gtest.h>
#include <jansson.h>

#include <memory>
#include <string>

namespace cbsd::test {

using Json = std::unique_ptr<json_t, decltype(&json_decref)>;

// The parsed text; a text that does not parse fails the test and gives null.
inline Json parsed(const std::string& text) {
    json_error_t error;
    json_t* root = json_loads(text.c_str(), 0, &error);
    EXPECT_NE(root, nullptr) << error.text << " in " << text;
    return Json(root, json_decref);
}

}  // namespace cbsd::test

#pragma once

#include "common/util/Json.h"

#include <gtest/gtest.h>

#include <rapidjson/document.h>

#include <string>

namespace vantor::ioc::test
{

// The document of a JSON text that the test expects to parse.
inline rapidjson::Document Json(const std::string& text)
{
    rapidjson::Document document;
    EXPECT_TRUE(util::ParseJson(document, text)) << text;
    return document;
}

} // namespace vantor::ioc::test

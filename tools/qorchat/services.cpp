// The table of services qorchat knows, in the library's order.
#include "services.h"

#include <array>

namespace qorchat {
namespace {

constexpr std::array kServices{
    Service{"openai", QORAssistantType::OPENAI_v1, "OPENAI_API_KEY", ""},
    Service{"google", QORAssistantType::GOOGLE, "GEMINI_API_KEY", ""},
    Service{"deepseek", QORAssistantType::DEEPSEEK, "DEEPSEEK_API_KEY", ""},
    // A local server speaks plain HTTP; without a scheme the library would try HTTPS.
    Service{"ollama", QORAssistantType::OLLAMA, "", "http://localhost:11434"},
    Service{"x", QORAssistantType::X, "XAI_API_KEY", ""},
    Service{"anthropic", QORAssistantType::ANTHROPIC, "ANTHROPIC_API_KEY", ""},
    Service{"alibaba", QORAssistantType::ALIBABA, "DASHSCOPE_API_KEY", ""},
};

}  // namespace

std::span<const Service> allServices() {
  return kServices;
}

const Service* findService(std::string_view name) {
  for (const Service& service : kServices) {
    if (service.name == name) return &service;
  }
  return nullptr;
}

std::string serviceNames() {
  std::string names;
  for (const Service& service : kServices) {
    if (!names.empty()) names += '|';
    names += service.name;
  }
  return names;
}

}  // namespace qorchat

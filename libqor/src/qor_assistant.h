#pragma once

#include <functional>
#include <memory>
#include <string>

#include "qor.h"
#include "qor_assistant_properties.h"

// The base of the service adapters: it owns the memory it made, the pool, the REST session and the
// live property record, and implements what does not depend on the service. Every adapter also
// gives the model catalogue and the streamed chat, optional interfaces a host asks for with
// dynamic_cast.
class QORAssistant : public IQORAssistant,
                     public IQORModelCatalogue,
                     public IQORStreamingAssistant {
 public:
  // How a service narrows a set temperature after the general range of 0.0 to 2.0.
  enum class TemperatureRule {
    ZeroToTwo,       // nothing further
    ZeroToOne,       // a value above 1.0 becomes 1.0
    ZeroToBelowTwo,  // a value of 2.0 or more becomes 1.99
  };

  QORAssistant(const QORAssistant&) = delete;
  QORAssistant& operator=(const QORAssistant&) = delete;
  ~QORAssistant() override;

  IQORAssistantMemory* detachMemory() override;
  void attachMemory(IQORAssistantMemory* memory) override;
  std::string updateProperties(std::function<void(IQORProperties*)> update) override;
  IQORProperties* obtainProperties() override;

  // The memory in use, never null. ownedMemory holds it while this assistant must delete it.
  IQORAssistantMemory* memory = nullptr;
  std::unique_ptr<IQORAssistantMemory> ownedMemory;
  std::unique_ptr<QORAssistantProperties> properties;
  std::unique_ptr<IYLHTTPPoolCenter> pool;
  std::unique_ptr<YLRestSession> session;

  bool ownsMemory() const { return ownedMemory != nullptr; }
  // Takes the pool over once construction has succeeded.
  void adoptPool(IYLHTTPPoolCenter* adopted) noexcept { pool.reset(adopted); }

 protected:
  // The session uses the pool; the assistant owns it only once adoptPool() has run, so that a
  // construction that fails leaves the pool to the caller. A null memory makes a default one.
  // defaultHost is the service's public host without a scheme; an empty host stands for it.
  QORAssistant(IYLHTTPPoolCenter* pool, const std::string& host, IQORAssistantMemory* memory,
               const std::string& defaultHost, TemperatureRule temperatureRule);

  // Puts a record of a subclass in place of the plain one, carrying the host over.
  void replaceProperties(std::unique_ptr<QORAssistantProperties> replacement);

 private:
  TemperatureRule temperatureRule_;
};

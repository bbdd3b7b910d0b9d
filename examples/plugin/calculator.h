// Opcode 0x1001 "calculator", subsystem 1: integer "add" and "multiply" over
// the task's arguments, refusing results that overflow 64 bits.
#pragma once

#include "service.h"

namespace example {

inline constexpr uint32_t kCalculatorOpcode = 0x1001;
inline constexpr uint32_t kCalculatorSubsystem = 1;

class Calculator : public Service {
 public:
  uint32_t opcode() const override { return kCalculatorOpcode; }
  const char* name() const override { return "calculator"; }
  Json::Value run(const lumokit::TaskRequest& task) override;
};

}  // namespace example

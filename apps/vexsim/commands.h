#ifndef VEXSIM_COMMANDS_H_
#define VEXSIM_COMMANDS_H_

#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "simulation.h"

namespace vexsim {

// Carries out the commands that change the simulated network while it runs.
class Commands {
 public:
  using Words = std::vector<std::string>;

  Commands(Simulation& simulation, bool json, std::function<void()> quit);

  // One line in, one line out, without the line end.
  std::string Execute(const std::string& line);
  // What the program says when it is up.
  std::string ReadyLine();

 private:
  using Handler = nlohmann::json (Commands::*)(const Words& words);

  nlohmann::json Run(const Words& words);
  nlohmann::json List(const Words& words);
  nlohmann::json Add(const Words& words);
  nlohmann::json Remove(const Words& words);
  nlohmann::json Kill(const Words& words);
  nlohmann::json Revive(const Words& words);
  nlohmann::json Announce(const Words& words);
  nlohmann::json Answers(const Words& words);
  nlohmann::json SetFault(const Words& words);
  nlohmann::json Interfaces(const Words& words);
  nlohmann::json Set(const Words& words);
  nlohmann::json Get(const Words& words);
  nlohmann::json SetActionFault(const Words& words);
  nlohmann::json Events(const Words& words);
  nlohmann::json Stats(const Words& words);
  nlohmann::json Quit(const Words& words);
  nlohmann::json ForEach(const Words& words, const std::function<void(Device&)>& action);
  Device& FindDevice(const std::string& word);
  nlohmann::json Describe(const Device& device);
  std::string Format(const nlohmann::json& answer) const;

  Simulation& simulation_;
  bool json_;
  std::function<void()> quit_;
  std::map<std::string, Handler> handlers_;
};

}  // namespace vexsim

#endif  // VEXSIM_COMMANDS_H_

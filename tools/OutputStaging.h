// The output is staged under a hidden temporary name in its own folder, so a
// rename publishes it whole and a failure leaves nothing behind. A run holds a
// lock on what it stages; what a killed run left unlocked, the next run in
// that folder removes, first undoing a sequence's publish it was killed in.
#ifndef TREMOR_TOOLS_OUTPUTSTAGING_H
#define TREMOR_TOOLS_OUTPUTSTAGING_H

#include <filesystem>
#include <string>
#include <vector>

namespace render {

class Staging {
 public:
  // Throws Failure when the sequence's temporary folder cannot be made.
  Staging(const std::filesystem::path& output, bool sequence);
  ~Staging() { Discard(); }
  Staging(const Staging&) = delete;
  Staging& operator=(const Staging&) = delete;

  // Where the writer writes: the temporary video, or the pattern in the temporary folder.
  const std::filesystem::path& WriterTarget() const { return target_; }
  // Moves the written `files` to the output's folder (Publish, then Discard).
  void Commit(const std::vector<std::string>& files);
  // Moves them, keeping what they replace until Discard; a failure puts
  // everything back and throws Failure.
  void Publish(const std::vector<std::string>& files);
  // Puts back what Publish replaced and removes what it added.
  void Undo();
  // Removes whatever was staged.
  void Discard();
  // A message about the staged files as the user should read it: naming the
  // output, not the hidden temporary.
  std::string Public(std::string message) const;

 private:
  std::filesystem::path output_, temp_, target_, kept_;
  bool sequence_;
  bool published_ = false;
  int lock_ = -1;  // the staged file or folder, locked while this run lives
};

// The render's files and the UI snapshot: both published or neither.
void PublishTogether(Staging& output, Staging* snapshot, const std::vector<std::string>& files);

}  // namespace render

#endif

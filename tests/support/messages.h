// Captures the messages that the code under test reports while an object of this class lives.
#ifndef TESTS_SUPPORT_MESSAGES_H
#define TESTS_SUPPORT_MESSAGES_H

#include <string>
#include <vector>

#include "qxlib/misc.h"

namespace support {

struct Message {
  std::string file, module, function, text;
  int line, level;
  bool flag;
};

class Messages {
 public:
  Messages() { QXMessageHandlerSet(&Messages::Take, this); }
  ~Messages() { QXMessageHandlerSet(nullptr, nullptr); }
  Messages(const Messages&) = delete;
  Messages& operator=(const Messages&) = delete;

  const std::vector<Message>& all() const { return messages_; }

  // The texts alone, in order.
  std::vector<std::string> texts() const {
    std::vector<std::string> result;
    for (const Message& message : messages_) result.push_back(message.text);
    return result;
  }

 private:
  static void Take(const QXMessageContext* context, const char* text, void* self) {
    static_cast<Messages*>(self)->messages_.push_back({context->file, context->module, context->function, text,
                                                       context->line, context->level, context->flag != FALSE});
  }

  std::vector<Message> messages_;
};

}  // namespace support

#endif

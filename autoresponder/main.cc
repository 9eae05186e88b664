// The autoresponder: started by the mail system once per delivered message.
#include "autoresponder/run.h"

int main(int argc, char** argv) {
  run_autoresponder(argc, argv);
}

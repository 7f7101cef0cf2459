#include "companions/outbox/RunOutbox.h"

int main(int argc, char** argv) {
    return kelto::halvek::outbox::RunOutbox(argc, argv);
}

#include "companions/mqtt/RunMqtt.h"

int main(int argc, char** argv) {
    return kelto::halvek::mqtt::RunMqtt(argc, argv);
}

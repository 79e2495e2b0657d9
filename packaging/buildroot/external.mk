include $(sort $(wildcard $(BR2_EXTERNAL_VOLDRAKE_PATH)/package/*/*.mk))

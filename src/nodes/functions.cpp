// (to be written) node implementations: functions

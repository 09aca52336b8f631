// (to be written) node implementations: logic

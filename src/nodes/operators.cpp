// (to be written) node implementations: operators

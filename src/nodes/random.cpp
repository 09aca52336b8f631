// (to be written) node implementations: random

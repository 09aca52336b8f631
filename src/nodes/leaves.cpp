// (to be written) node implementations: leaves

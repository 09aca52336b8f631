// (to be written) node implementations: depvar

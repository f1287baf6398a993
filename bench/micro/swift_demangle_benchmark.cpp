// Micro-benchmark of the Swift demangler: names per second, one thread.
//
// The names: 300 real Swift symbol names embedded below, as llvm-nm-14
// lists them from the shared corpus (../shared/corpus): every distinct
// current-mangling name ($s) there, and every 24th Swift 4 (_T0) and every
// 100th Swift 3 (_T) name in sorted order. With $SYMLIFT_BENCH_SWIFT_NAMES
// set to a file of names, one a line (for example the output of
// `llvm-nm-14 -arch all -j FILE`), those are used instead; lines that are
// not Swift names are dropped.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "demangle/swift/swift_demangler.h"

namespace {

using symlift::demangle::swift::demangle;
using symlift::demangle::swift::Form;

const char* const kEmbeddedNames[] = {
    "_$s10Kingfisher0A5ErrorOACs0B0AAWL",
    "_$s10Kingfisher0A5ErrorOWOb",
    "_$s10Kingfisher0A7ManagerC02RxA0E2rx0C5Swift8ReactiveVyACGvM",
    "_$s10Kingfisher0A7ManagerC02RxA0E2rx0C5Swift8ReactiveVyACGvM.resume.0",
    "_$s10Kingfisher0A7ManagerC02RxA0E2rx0C5Swift8ReactiveVyACGvg",
    "_$s10Kingfisher0A7ManagerC02RxA0E2rx0C5Swift8ReactiveVyACGvpMV",
    "_$s10Kingfisher0A7ManagerC02RxA0E2rx0C5Swift8ReactiveVyACGvs",
    "_$s10Kingfisher0A7ManagerC7RxSwift18ReactiveCompatible0cA0AdEP2rxAD0E0Vy0E4BaseQzGmvMZTW",
    "_$s10Kingfisher0A7ManagerC7RxSwift18ReactiveCompatible0cA0AdEP2rxAD0E0Vy0E4BaseQzGmvMZTW.resume.0",
    "_$s10Kingfisher0A7ManagerC7RxSwift18ReactiveCompatible0cA0AdEP2rxAD0E0Vy0E4BaseQzGmvgZTW",
    "_$s10Kingfisher0A7ManagerC7RxSwift18ReactiveCompatible0cA0AdEP2rxAD0E0Vy0E4BaseQzGmvsZTW",
    "_$s10Kingfisher0A7ManagerC7RxSwift18ReactiveCompatible0cA0AdEP2rxAD0E0Vy0E4BaseQzGvMTW",
    "_$s10Kingfisher0A7ManagerC7RxSwift18ReactiveCompatible0cA0AdEP2rxAD0E0Vy0E4BaseQzGvMTW.resume.0",
    "_$s10Kingfisher0A7ManagerC7RxSwift18ReactiveCompatible0cA0AdEP2rxAD0E0Vy0E4BaseQzGvgTW",
    "_$s10Kingfisher0A7ManagerC7RxSwift18ReactiveCompatible0cA0AdEP2rxAD0E0Vy0E4BaseQzGvsTW",
    "_$s10Kingfisher0A7ManagerC7RxSwift18ReactiveCompatible0cA0MA",
    "_$s10Kingfisher0A7ManagerC7RxSwift18ReactiveCompatible0cA0Mc",
    "_$s10Kingfisher0A7ManagerC7RxSwift18ReactiveCompatible0cA0WP",
    "_$s10Kingfisher19RetrieveImageResultVWOh",
    "_$s10Kingfisher6SourceOWOb",
    "_$s10Kingfisher6SourceOWOc",
    "_$s10Kingfisher6SourceOWOh",
    "_$s10Kingfisher8Resource_pMD",
    "_$s10Kingfisher8Resource_pWOcTm",
    "_$s12RxKingfisherMXM",
    "_$s7RxSwift17PrimitiveSequenceVyAA11SingleTraitOSo7UIImageCGACyxq_GAA0cD4TypeAAWL",
    "_$s7RxSwift17PrimitiveSequenceVyAA11SingleTraitOSo7UIImageCGACyxq_GAA0cD4TypeAAWlTm",
    "_$s7RxSwift17PrimitiveSequenceVyAA11SingleTraitOSo7UIImageCGMD",
    "_$s7RxSwift17PrimitiveSequenceVyAA11SingleTraitOSo7UIImageCGML",
    "_$s7RxSwift17PrimitiveSequenceVyAA11SingleTraitOSo7UIImageCGMa",
    "_$s7RxSwift8ReactiveV0A10Kingfisher0D00D7ManagerCRszlE13retrieveImage4with7optionsAA17PrimitiveSequenceVyAA11SingleTraitOSo7UIImageCGAE6SourceO_SayAE0D15OptionsInfoItemOGSgtF",
    "_$s7RxSwift8ReactiveV0A10Kingfisher0D00D7ManagerCRszlE13retrieveImage4with7optionsAA17PrimitiveSequenceVyAA11SingleTraitOSo7UIImageCGAE6SourceO_SayAE0D15OptionsInfoItemOGSgtFAA10Disposable_pys6ResultOyAPs5Error_pGccfU_",
    "_$s7RxSwift8ReactiveV0A10Kingfisher0D00D7ManagerCRszlE13retrieveImage4with7optionsAA17PrimitiveSequenceVyAA11SingleTraitOSo7UIImageCGAE6SourceO_SayAE0D15OptionsInfoItemOGSgtFAA10Disposable_pys6ResultOyAPs5Error_pGccfU_TA",
    "_$s7RxSwift8ReactiveV0A10Kingfisher0D00D7ManagerCRszlE13retrieveImage4with7optionsAA17PrimitiveSequenceVyAA11SingleTraitOSo7UIImageCGAE6SourceO_SayAE0D15OptionsInfoItemOGSgtFAA10Disposable_pys6ResultOyAPs5Error_pGccfU_TA.7",
    "_$s7RxSwift8ReactiveV0A10Kingfisher0D00D7ManagerCRszlE13retrieveImage4with7optionsAA17PrimitiveSequenceVyAA11SingleTraitOSo7UIImageCGAE6SourceO_SayAE0D15OptionsInfoItemOGSgtFAA10Disposable_pys6ResultOyAPs5Error_pGccfU_yAZyAE08RetrievegT0VAE0dU0OGcfU_",
    "_$s7RxSwift8ReactiveV0A10Kingfisher0D00D7ManagerCRszlE13retrieveImage4with7optionsAA17PrimitiveSequenceVyAA11SingleTraitOSo7UIImageCGAE6SourceO_SayAE0D15OptionsInfoItemOGSgtFAA10Disposable_pys6ResultOyAPs5Error_pGccfU_yAZyAE08RetrievegT0VAE0dU0OGcfU_TA",
    "_$s7RxSwift8ReactiveV0A10Kingfisher0D00D7ManagerCRszlE13retrieveImage4with7optionsAA17PrimitiveSequenceVyAA11SingleTraitOSo7UIImageCGAE6SourceO_SayAE0D15OptionsInfoItemOGSgtFAA10Disposable_pys6ResultOyAPs5Error_pGccfU_yycfU0_TA",
    "_$s7RxSwift8ReactiveV0A10Kingfisher0D00D7ManagerCRszlE13retrieveImage4with7optionsAA17PrimitiveSequenceVyAA11SingleTraitOSo7UIImageCGAE8Resource_p_SayAE0D15OptionsInfoItemOGSgtF",
    "_$sSo7UIImageCML",
    "_$sSo7UIImageCMa",
    "_$ss6ResultOy10Kingfisher013RetrieveImageA0VAC0B5ErrorOGMD",
    "_$ss6ResultOySo7UIImageCs5Error_pGIegg_7RxSwift10Disposable_pIeggr_AByxsAE_pGlyADIsegn_AgH_pIeggr_TRTA",
    "_$ss6ResultOySo7UIImageCs5Error_pGIegg_7RxSwift10Disposable_pIeggr_AByxsAE_pGlyADIsegn_AgH_pIeggr_TRTA.11",
    "_$ss6ResultOySo7UIImageCs5Error_pGIegn_AFIegg_TRTA",
    "_$ss6ResultOySo7UIImageCs5Error_pGWOe",
    "_$ss6ResultOySo7UIImageCs5Error_pGWOy",
    "__T010Foundation4DataVSgML",
    "__T010RealmSwift03AnyA10CollectionC5indexSiSgSS8matching_SayypGdtFTf4gXgn_n",
    "__T010RealmSwift03AnyA10CollectionC8bridgingACyxGyp4from_ypSg4withtFZ",
    "__T010RealmSwift03AnyA10CollectionCyxGAA0aD0A2A6ObjectCRbzlAaEP5indexSiSgSo11NSPredicateC8matching_tFTW",
    "__T010RealmSwift03AnyA10CollectionCyxGAA28AssistedObjectiveCBridgeableA2A6ObjectCRbzlAaEP8bridgingxyp4from_ypSg4withtFZTW",
    "__T010RealmSwift03AnyA10CollectionCyxGs013BidirectionalD0A2A6ObjectCRbzlsAEP9formIndexy0H0Qzz6before_tFTW",
    "__T010RealmSwift03AnyA10CollectionCyxGs0D0A2A6ObjectCRbzlsAEP5index5IndexQzSgAK_0G8DistanceQz8offsetByAK07limitedJ0tFTW",
    "__T010RealmSwift03AnyA10CollectionCyxGs14_IndexableBaseA2A6ObjectCRbzlWP",
    "__T010RealmSwift03AnyA10CollectionCyxGs22_RandomAccessIndexableA2A6ObjectCRbzlWa",
    "__T010RealmSwift03AnyA10CollectionCyxGs8SequenceA2A6ObjectCRbzlsAEP31_customContainsEquatableElementSbSg0J0QzFTW",
    "__T010RealmSwift03AnyA26CollectionBridgingMetadata33_707062CF17EF7E1615DECC3E36BB1909LLVwXx",
    "__T010RealmSwift04_AnyA10Collection33_707062CF17EF7E1615DECC3E36BB1909LLC6filterAA7ResultsCy7ElementQzGSo11NSPredicateCF",
    "__T010RealmSwift04_AnyA14CollectionBase33_707062CF17EF7E1615DECC3E36BB1909LLC5countSifg",
    "__T010RealmSwift0A0C03rlmA0So8RLMRealmCvWvd",
    "__T010RealmSwift0A0C12NotificationOs16RawRepresentableAAWa",
    "__T010RealmSwift0A0C13ConfigurationV06deleteA17IfMigrationNeededSbvfi",
    "__T010RealmSwift0A0C13ConfigurationV18inMemoryIdentifierSSSgfm",
    "__T010RealmSwift0A0C13ConfigurationVAE10Foundation3URLVSg04fileE0_SSSg18inMemoryIdentifierAA04SyncC0VSg04syncC0AF4DataVSg13encryptionKeySb8readOnlys6UInt64V13schemaVersionyAA9MigrationC_AWtcSg14migrationBlockSb06deletea2IfT6NeededSbSi_SitcSg21shouldCompactOnLaunchSayAA6ObjectCmGSg11objectTypestcfcfA7_",
    "__T010RealmSwift0A0C13ConfigurationVwta",
    "__T010RealmSwift0A0C3addyx_Sb6updatets8SequenceRzAA6ObjectC7ElementRczlF",
    "__T010RealmSwift0A0C5ErrorV10Foundation21_BridgedStoredNSErrorAafGP03_nsC0So0G0CfgTW",
    "__T010RealmSwift0A0C5ErrorV25fileFormatUpgradeRequiredSC8RLMErrorV4CodeOfau",
    "__T010RealmSwift0A0C5ErrorVsAdAsADP5_codeSifgTW",
    "__T010RealmSwift0A0C7isEmptySbfg",
    "__T010RealmSwift0A0CN",
    "__T010RealmSwift0A16CollectionChangeOwXx",
    "__T010RealmSwift0A8OptionalCACyxGxSgcfcTf4gn_n",
    "__T010RealmSwift10ObjectUtilC21getOptionalProperties33_95A69397B44B27F7A8F436871D45D9E6LLs10DictionaryVySSypGypFZTo",
    "__T010RealmSwift11RLMIteratorC4nextxSgyF",
    "__T010RealmSwift12ObjectChangeOwXX",
    "__T010RealmSwift12ObjectSchemaCfd",
    "__T010RealmSwift13DynamicObjectCACycfcTo",
    "__T010RealmSwift14LinkingObjectsC20addNotificationBlockSo20RLMNotificationTokenCyAA0A16CollectionChangeOyACyxGGcFySo10RLMResultsCySo9RLMObjectCGSg_So013RLMCollectionK0CSgs5Error_pSgtcfU_Tf4ngggg_n",
    "__T010RealmSwift14LinkingObjectsC5indexSiSgSo11NSPredicateC8matching_tFTf4gn_n",
    "__T010RealmSwift14LinkingObjectsC7averageqd__SgSS10ofProperty_tAA11AddableTypeRd__lF",
    "__T010RealmSwift14LinkingObjectsCyxGAA0A10CollectionA2A6ObjectCRbzlAaEP3minqd__SgSS10ofProperty_tAA10MinMaxTypeRd__lFTW",
    "__T010RealmSwift14LinkingObjectsCyxGAA14ThreadConfinedA2A6ObjectCRbzlAaEP13isInvalidatedSbfgTW",
    "__T010RealmSwift14LinkingObjectsCyxGs10CollectionA2A6ObjectCRbzlsAEP6prefix11SubSequenceQz5IndexQz4upTo_tFTWTm",
    "__T010RealmSwift14LinkingObjectsCyxGs14_IndexableBaseA2A6ObjectCRbzlsAEP10startIndex0I0QzfgTW",
    "__T010RealmSwift14LinkingObjectsCyxGs22LazyCollectionProtocolA2A6ObjectCRbzlWP",
    "__T010RealmSwift14LinkingObjectsCyxGs23BidirectionalCollectionA2A6ObjectCRbzlsAEP4last7ElementQzSgfgTW",
    "__T010RealmSwift14LinkingObjectsCyxGs8SequenceA2A6ObjectCRbzlsAEP22_copyToContiguousArrays0iJ0Vy7ElementQzGyFTW",
    "__T010RealmSwift14PropertyChangeVwCc",
    "__T010RealmSwift14SortDescriptorVACSS20unicodeScalarLiteral_tcfC",
    "__T010RealmSwift14SortDescriptorVs33ExpressibleByUnicodeScalarLiteralAAWa",
    "__T010RealmSwift14SyncPermissionC28shouldIncludeInDefaultSchemaSbyFZ",
    "__T010RealmSwift14SyncPermissionC7mayReadSbvfi",
    "__T010RealmSwift14SyncPermissionCACSo8RLMRealmC5realm_So15RLMObjectSchemaC6schematcfCTm",
    "__T010RealmSwift14SyncPermissionCfETo",
    "__T010RealmSwift15SyncCredentialsVwal",
    "__T010RealmSwift17ObjectiveCSupportC7convertSo10RLMResultsCySo9RLMObjectCGAA14LinkingObjectsCyxG6object_tAA6ObjectCRbzlFZ",
    "__T010RealmSwift17SyncConfigurationVACSo11RLMSyncUserC4user_10Foundation3URLV05realmI0Sb19enableSSLValidationtcfcfA1_",
    "__T010RealmSwift17dynamicBridgeCastxyp14fromObjectiveC_tlFSi_TG5",
    "__T010RealmSwift18LinkingObjectsBaseCACSS13fromClassName_SS8propertytcfcTo",
    "__T010RealmSwift19SyncPermissionOfferC13statusMessageSSSgfs",
    "__T010RealmSwift19SyncPermissionOfferC6statusSC29RLMSyncManagementObjectStatusOfg",
    "__T010RealmSwift19SyncPermissionOfferC9createdAt10Foundation4DateVfgTo",
    "__T010RealmSwift19SyncPermissionOfferC9updatedAt10Foundation4DateVfsTo",
    "__T010RealmSwift19SyncPermissionOfferCMn",
    "__T010RealmSwift20SyncPermissionChangeC13statusMessageSSSgfgTm",
    "__T010RealmSwift20SyncPermissionChangeC6userIdSSfgTo",
    "__T010RealmSwift20SyncPermissionChangeC9createdAt10Foundation4DateVfsTo",
    "__T010RealmSwift20SyncPermissionChangeCACyp5value_So9RLMSchemaC6schematcfcTf4ngn_n",
    "__T010RealmSwift27SyncPermissionOfferResponseC10statusCodeAA0A8OptionalCySiGvWvd",
    "__T010RealmSwift27SyncPermissionOfferResponseC5tokenSSfsTo",
    "__T010RealmSwift27SyncPermissionOfferResponseC9updatedAt10Foundation4DateVvWvd",
    "__T010RealmSwift27SyncPermissionOfferResponseCfD",
    "__T010RealmSwift30LinkingObjectsBridgingMetadataOwal",
    "__T010RealmSwift4ListC20addNotificationBlockSo20RLMNotificationTokenCyAA0A16CollectionChangeOyACyxGGcFySo8RLMArrayCySo9RLMObjectCGSg_So013RLMCollectionJ0CSgs5Error_pSgtcfU_Tf4ngggg_n",
    "__T010RealmSwift4ListC5indexSiSgSS8matching_SayypGdtFTf4gXgn_n",
    "__T010RealmSwift4ListC6sortedAA7ResultsCyxGSS10byProperty_Sb9ascendingtF",
    "__T010RealmSwift4ListC9subscriptxSicfm",
    "__T010RealmSwift4ListCyxGAA0A10CollectionA2A6ObjectCRbzlAaEP21_addNotificationBlockSo20RLMNotificationTokenCyAA0aD6ChangeOyAA03AnyaD0Cy7ElementQzGGcFTW",
    "__T010RealmSwift4ListCyxGAA0A14CollectionBaseA2A6ObjectCRbzlWP",
    "__T010RealmSwift4ListCyxGs10CollectionA2A6ObjectCRbzlsAEP5first7ElementQzSgfgTW",
    "__T010RealmSwift4ListCyxGs14_IndexableBaseA2A6ObjectCRbzl11SubSequenceWt",
    "__T010RealmSwift4ListCyxGs22LazyCollectionProtocolA2A6ObjectCRbzl8ElementsWt",
    "__T010RealmSwift4ListCyxGs23BidirectionalCollectionA2A6ObjectCRbzl11SubSequenceWt",
    "__T010RealmSwift4ListCyxGs26RangeReplaceableCollectionA2A6ObjectCRbzl11SubSequences01_dE9IndexablePWT",
    "__T010RealmSwift4ListCyxGs26_RangeReplaceableIndexableA2A6ObjectCRbzlWa",
    "__T010RealmSwift4ListCyxGs8SequenceA2A6ObjectCRbzlsAEP3mapSayqd__Gqd__7ElementQzKcKlFTW",
    "__T010RealmSwift6ObjectC17ignoredPropertiesSaySSGyFZTo",
    "__T010RealmSwift6ObjectCAA14ThreadConfinedA2aDP5realmAA0A0CSgfgTW",
    "__T010RealmSwift6ObjectCMf",
    "__T010RealmSwift6SchemaCs9EquatableAAWa",
    "__T010RealmSwift7ResultsC3maxqd__SgSSAA10MinMaxTypeRd__lF",
    "__T010RealmSwift7ResultsC5valueypSgSS6forKey_tFTo",
    "__T010RealmSwift7ResultsC8setValueyypSg_SS6forKeytFTo",
    "__T010RealmSwift7ResultsCyxGAA0A10CollectionA2A6ObjectCRbzlAaEP5countSifgTW",
    "__T010RealmSwift7ResultsCyxGAA14ThreadConfinedA2A6ObjectCRbzlWP",
    "__T010RealmSwift7ResultsCyxGs10CollectionA2A6ObjectCRbzlsAEP6suffix11SubSequenceQz5IndexQz4from_tFTW",
    "__T010RealmSwift7ResultsCyxGs14_IndexableBaseA2A6ObjectCRbzlsAEP20_failEarlyRangeChecky5IndexQz_s0I0VyAKG6boundstFTW",
    "__T010RealmSwift7ResultsCyxGs22RandomAccessCollectionA2A6ObjectCRbzl11SubSequenceWt",
    "__T010RealmSwift7ResultsCyxGs23BidirectionalCollectionA2A6ObjectCRbzlsAEP7indices7IndicesQzfgTW",
    "__T010RealmSwift7ResultsCyxGs8SequenceA2A6ObjectCRbzlsAEP3mapSayqd__Gqd__7ElementQzKcKlFTW",
    "__T010RealmSwift8ListBaseCMF",
    "__T010RealmSwift8PropertyCfD",
    "__T010RealmSwift9MigrationCMf",
    "__T0SC12RLMSyncErrorV10Foundation21_BridgedStoredNSError5RealmAcDPxSo0F0C03_nsB0_tcfCTW",
    "__T0SC12RLMSyncErrorVMn",
    "__T0SC15NSExceptionNameVMn",
    "__T0SC15NSExceptionNameVwxx",
    "__T0SC15RLMNotificationVwXx",
    "__T0SC19RLMIdentityProviderVs20_SwiftNewtypeWrapper5RealmWP",
    "__T0SC8RLMErrorV10Foundation16__BridgedNSError5RealmWP",
    "__T0SC8RLMErrorV4CodeOwui",
    "__T0SC8RLMErrorVwxg",
    "__T0Sd10RealmSwift0A12OptionalTypeAAWP",
    "__T0So10RLMResultsCSgML",
    "__T0So14RLMSyncManagerC10RealmSwiftE6sharedABfgZ",
    "__T0So14RLMSyncSessionC10RealmSwiftE17ProgressDirectionOML",
    "__T0So14RLMSyncSessionC10RealmSwiftE8ProgressVMa",
    "__T0So19NSRegularExpressionC15MatchingOptionsVs10SetAlgebra10FoundationsAEP11subtractingxxFTW",
    "__T0So19NSRegularExpressionC15MatchingOptionsVs9Equatable10FoundationsAEP2eeoiSbx_xtFZTW",
    "__T0So19NSRegularExpressionC7OptionsVs10SetAlgebra10FoundationsAEP8containsSb7ElementQzFTW",
    "__T0So22RLMSyncPermissionValueCMF",
    "__T0So24RLMSyncPermissionResultsCs10Collection10RealmSwiftsACP6prefix11SubSequenceQz5IndexQz4upTo_tFTW",
    "__T0So24RLMSyncPermissionResultsCs14_IndexableBase10RealmSwiftsACP5index5IndexQzAH5after_tFTW",
    "__T0So24RLMSyncPermissionResultsCs8Sequence10RealmSwiftMA",
    "__T0So7NSErrorCMF",
    "__T0So9RLMSchemaCML",
    "__T0s14CountableRangeVySiGAByxGs10Collectionss10ComparableRzs11_StrideableRzs13SignedInteger6StridesAGPRpzlWL",
    "__T0s15ContiguousArrayV16_copyToNewBufferySi8oldCount_tFyXlXp_Tg5Tm",
    "__T0s17RandomAccessSliceVys6MirrorV14LegacyChildrenVGAByxGs0aB10Collectionss01_aB9IndexableRzlWL",
    "__T0s22RandomAccessCollectionPssAARzs10Strideable5IndexRpzAD_6StrideQZ0E8DistanceRtzs14CountableRangeVyAEG7IndicesRtzlE8distanceAiE4from_AE2totFSo24RLMSyncPermissionResultsC_Tg5",
    "__T0s23_NativeDictionaryBufferVss8HashableRzr0_lE9fromArrayAByxq_GSayx_q_tGFZTfq4gn_nSS_s0B0VyS2SGTg5Tf4nd_n",
    "__T0s37_HashableTypedNativeDictionaryStorageCys03AnyA0VypGML",
    "__TF10Foundationg21NSASCIIStringEncodingVES_SS8Encoding",
    "__TF6Darwin27_convertBoolToDarwinBooleanFSbVS_13DarwinBoolean",
    "__TF6Darwing8TIOCMBISSu",
    "__TF8Dispatchg21DISPATCH_VNODE_EXTENDSi",
    "__TFCs14_CollectionBox14__copyContentsfT12initializingGSpWx8Iterator7Element___GSpWxS0_S1___",
    "__TFCs18_EmptyArrayStorage27_getNonVerbatimBridgedCountfT_Si",
    "__TFCs26_RandomAccessCollectionBox6_indexfTPs12_AnyIndexBox_8offsetByVs5Int64_PS0__",
    "__TFCs29_NativeDictionaryStorageOwner9objectForfPs9AnyObject_GSqPS0___",
    "__TFE10FoundationCSo5NSSetg12customMirrorVs6Mirror",
    "__TFE10FoundationSS17dataUsingEncodingfTVES_SS8Encoding20allowLossyConversionSb_GSqVS_4Data_",
    "__TFE10FoundationSSg23resolvingSymlinksInPathSS",
    "__TFE10FoundationVs5Int64CfCSo8NSNumberS0_",
    "__TFE8DispatchCSo13DispatchGroup4waitfT11wallTimeoutVS_16DispatchWallTime_OS_21DispatchTimeoutResult",
    "__TFEsPs10SetAlgebraCuRd__s8Sequencewx7ElementzWd__8Iterator7Element_rfqd__x",
    "__TFEsPs8Sequence7flatMapuRd__S_rfzFzWx8Iterator7Element_qd__GSaWd__S0_S1___",
    "__TFOs25_VariantDictionaryStorage20isUniquelyReferencedfT_Sb",
    "__TFSS6appendfSST_",
    "__TFSVg16debugDescriptionSS",
    "__TFSdg11significandSd",
    "__TFSq3mapurfzFzxqd__GSqqd___",
    "__TFV10Foundation10URLRequests14httpBodyStreamGSqCSo11InputStream_",
    "__TFV10Foundation13URLComponentsg22percentEncodedFragmentGSqSS_",
    "__TFV10Foundation17URLResourceValuesg14fileProtectionGSqVSC17URLFileProtection_",
    "__TFV10Foundation20PersonNameComponentsg8nicknameGSqSS_",
    "__TFV10Foundation4Data9copyBytesfT2toGSpVs5UInt8_5countSi_T_",
    "__TFV10Foundation8Calendar10componentsfT2inVS_8TimeZone4fromVS_4Date_VS_14DateComponents",
    "__TFV10Foundation8IndexSet16filteredIndexSetfzT2inGVs11ClosedRangeSi_14includeIntegerFzSiSb_S0_",
    "__TFV10Foundation9IndexPathCfT7indexesGSaSi__S0_",
    "__TFVE10FoundationSS8Encodingg9hashValueSi",
    "__TFVVSS13CharacterView5Index10advancedByfTSi5limitS0__S0_",
    "__TFVs10ArraySlice6insertfTx2atSi_T_",
    "__TFVs11ClosedRange8overlapsfGS_x_Sb",
    "__TFVs12_ArrayBuffer33requestUniqueMutableBackingBufferfT15minimumCapacitySi_GSqGVs22_ContiguousArrayBufferx__",
    "__TFVs13AnyCollectiong8endIndexVs8AnyIndex",
    "__TFVs14_BridgeStorageCfT4objCq__GS_xq__",
    "__TFVs15EmptyCollectiong9subscriptFGVs5RangeSi_GS_x_",
    "__TFVs17_NativeSetStorage5_prevfSiSi",
    "__TFVs20LazyFilterCollectionCfTx20whereElementsSatisfyFWx8Iterator7Element_Sb_GS_x_",
    "__TFVs22_ContiguousArrayBufferg11nativeOwnerPs9AnyObject_",
    "__TFVs25MutableBidirectionalSlice5indexfTwxPs13IndexableBase5Index8offsetBywxPs9Indexable13IndexDistance9limitedBywxS1__GSqwxS1__",
    "__TFVs27LazyBidirectionalCollection5indexfT5afterwx5Index_wxS0_",
    "__TFVs30LazyMapBidirectionalCollection9formIndexfT6beforeRwx5Index_T_",
    "__TFVs3Set16formIntersectionuRd__s8SequencexzWd__8Iterator7Element_rfqd__T_",
    "__TFVs41MutableRangeReplaceableBidirectionalSlices9subscriptFGVs5RangewxPs13IndexableBase5Index_GS_x_",
    "__TFVs6UInt32g11descriptionSS",
    "__TFesRxs10Comparablexs11_StrideablewxPS0_6Strides13SignedIntegerwxPS0_19_DisabledRangeIndexs10StrideableWxS3_6Stride_S2_rVs14CountableRangeg9subscriptFGVs11ClosedRangex_GS6_x_",
    "__TFesRxs8Sequencewx11SubSequenceS_wxS0_zWxS0_S0__Wx8Iterator7Element_zWxS0_S1_S2__rS_8dropLastfSiGVs11AnySequenceWxS1_S2___",
    "__TFs22_isBridgedToObjectiveCurFMxSb",
    "__TFsoi1gu0_Rxs10Comparable_S_rFTTxq__Txq___Sb",
    "__TIFE10FoundationCSo11FileManager16replaceItemAtURLFzT15originalItemURLCSo5NSURL13withItemAtURLS1_14backupItemNameGSqSS_7optionsVS0_22ItemReplacementOptions_GSqS1__A2_",
    "__TIFSa9removeAllFT15keepingCapacitySb_T_A_",
    "__TIFVs6UInt16cFTSS5radixSi_GSqS__A0_",
    "__TMCs24_SwiftNativeNSEnumerator",
    "__TMPCs9_IndexBox",
    "__TMPVs22StrideThroughGenerator",
    "__TMVVVs9Character10_SmallUTF88Iterator",
    "__TMaCs24_SwiftNativeNSEnumerator",
    "__TMaV10Foundation8TimeZone",
    "__TMaVs15DictionaryIndex",
    "__TMaVs48_UnsafePartiallyInitializedContiguousArrayBuffer",
    "__TMnOV10Foundation8Calendar15SearchDirection",
    "__TMnVV10Foundation10CocoaError4Code",
    "__TMnVs17StrideToGenerator",
    "__TMp10Foundation16RecoverableError",
    "__TTSf4g_d___TZFE10FoundationVSC17CGAffineTransform36_unconditionallyBridgeFromObjectiveCfGSqCSo7NSValue_S0_",
    "__TTSf4gs_n___TFV10Foundation13URLComponentss4pathSS",
    "__TTSfq4g_n___swift_bridgeNonVerbatimFromObjectiveCToAny",
    "__TTSfq4s_gs_d___TFVVSS17UnicodeScalarView5IndexCfTVVSS8UTF8View5Index6withinS__GSqS0__",
    "__TTWCSo16NSDateComponentss35_HasCustomAnyHashableRepresentation10FoundationFS0_20_toCustomAnyHashablefT_GSqVs11AnyHashable_",
    "__TTWOE8DispatchCSo10DispatchIO10StreamTypes16RawRepresentableS_FS2_CfT8rawValuewx8RawValue_GSqx_",
    "__TTWV10Foundation12CharacterSets10SetAlgebraS_FS1_12intersectionfxx",
    "__TTWV10Foundation20PersonNameComponentss9EquatableS_ZFS1_oi2eefTxx_Sb",
    "__TTWV10Foundation4Datas9IndexableS_FS1_8distancefT4fromwx5Index2towxS2__wx13IndexDistance",
    "__TTWV10Foundation8IndexSets25ExpressibleByArrayLiteralS_FS1_Cft12arrayLiteralGSawx7Element__x",
    "__TTWV10Foundation9IndexPaths8SequenceS_FS1_12makeIteratorfT_wx8Iterator",
    "__TTWV8Dispatch12DispatchDatas8SequenceS_FS1_5splitfzT9maxSplitsSi25omittingEmptySubsequencesSb14whereSeparatorFzWx8Iterator7Element_Sb_GSawx11SubSequence_",
    "__TTWVE8DispatchCSo10DispatchIO13IntervalFlagss10SetAlgebraS_FS2_8subtractfxT_",
    "__TTWVE8DispatchCSo14DispatchSource15FileSystemEvents10SetAlgebraS_FS2_12intersectionfxx",
    "__TTWVSC8CGVectors21_ObjectiveCBridgeable10FoundationZFS0_36_unconditionallyBridgeFromObjectiveCfGSqwx15_ObjectiveCType_x",
    "__TTWVs6UInt64s21_ObjectiveCBridgeable10FoundationFS0_19_bridgeToObjectiveCfT_wx15_ObjectiveCType",
    "__TToFCs40_SwiftNativeNSArrayWithContiguousStoragecfT_S_",
    "__TWPOV10Foundation8Calendar10Identifiers8HashableS_",
    "__TWPScs25LosslessStringConvertibles",
    "__TWPSvs11_Strideables",
    "__TWPV10Foundation20PersonNameComponentss9_HashableS_",
    "__TWPV10Foundation9IndexPaths16MutableIndexableS_",
    "__TWPVE8DispatchCSo14DispatchSource10TimerFlagss16RawRepresentableS_",
    "__TWPVSS9UTF16Views23CustomStringConvertibles",
    "__TWPVs12StaticStrings26ExpressibleByStringLiterals",
    "__TWPVs5Int16s35_ExpressibleByBuiltinIntegerLiterals",
    "__TWPVs6UInt16s9_Hashables",
    "__TWPu0_Rxs8HashablerGVs10Dictionaryxq__s30ExpressibleByDictionaryLiterals",
    "__TWPuRxs10StrideablerGVs21StrideThroughIteratorx_s16IteratorProtocols",
    "__TWPuRxs22BidirectionalIndexablexs16MutableIndexablerGVs25MutableBidirectionalSlicex_s9Indexables",
    "__TWPuRxs8SequenceWx8Iterator7Element_S_rGVs15FlattenSequencex_S_s",
    "__TWPurGVs10ArraySlicex_s26RangeReplaceableCollections",
    "__TWPurGVs25AnyRandomAccessCollectionx_s8Sequences",
    "__TWVV10Foundation12URLQueryItem",
    "__TWVVs16_DependenceToken",
    "__TWaCSo6CGPaths9Equatable12CoreGraphics",
    "__TWaOs14_StopIterations8Hashables",
    "__TWaSds9_Hashables",
    "__TWaV10Foundation10URLRequests9EquatableS_",
    "__TWaV10Foundation4DateS_20ReferenceConvertibleS_",
    "__TWaV10ObjectiveC8Selectors26ExpressibleByStringLiteralS_",
    "__TWaVSC30_SwiftNSOperatingSystemVersions9Equatables",
    "__TWaVVSS17UnicodeScalarView16_ScratchIterators16IteratorProtocols",
    "__TWaVs18_CocoaArrayWrappers13IndexableBases",
    "__TWaVs5Int64s10MirrorPaths",
    "__TWaVs6UInt64s17IntegerArithmetics",
    "__TWauRxCSo4UnitrGV10Foundation11Measurementx_s17CustomReflectableS0_",
    "__TWauRxs16MutableIndexablexs21RandomAccessIndexablerGVs24MutableRandomAccessSlicex_s22BidirectionalIndexables",
    "__TWauRxs22RandomAccessCollectionrGVs26LazyRandomAccessCollectionx_s9Indexables",
    "__TWaurGSQx_s28CustomDebugStringConvertibles",
    "__TWaurGVs13AnyCollectionx_s13IndexableBases",
    "__TWoFC8Dispatch16DispatchWorkItem7performfT_T_",
    "__TWoFCs32_NativeSetStorageKeyNSEnumeratorCfT_GS_x_",
    "__TZFE10FoundationVSC7CGPoint36_unconditionallyBridgeFromObjectiveCfGSqCSo7NSValue_S0_",
    "__TZFOE8DispatchCSo13DispatchQueue20AutoreleaseFrequencyoi2eefTS1_S1__Sb",
    "__TZFV10Foundation10CocoaErrorg20xpcConnectionInvalidVS0_4Code",
    "__TZFV10Foundation10POSIXErrorg5ELOOPO6Darwin14POSIXErrorCode",
    "__TZFV10Foundation12CharacterSetg15urlQueryAllowedS0_",
    "__TZFV10Foundation8Calendar26_forceBridgeFromObjectiveCfTCSo10NSCalendar6resultRGSqS0___T_",
    "__TZFV10Foundation8URLErrorg32backgroundSessionWasDisconnectedOS0_4Code",
    "__TZFVV10Foundation10CocoaError4Codeg18UserCancelledErrorS1_",
    "__TZFVV10Foundation10CocoaError4Codeg34fileReadUnknownStringEncodingErrorS1_",
    "__TZFVs29UnsafeMutableRawBufferPointer8allocatefT5countSi_S_",
};

const std::vector<std::string>& names() {
  static const std::vector<std::string> loaded = [] {
    std::vector<std::string> result;
    const char* path = std::getenv("SYMLIFT_BENCH_SWIFT_NAMES");
    if (path && *path) {
      std::ifstream file(path);
      std::string line;
      while (std::getline(file, line))
        if (symlift::demangle::swift::isSwiftMangledName(line)) result.push_back(line);
    } else {
      for (const char* name : kEmbeddedNames) result.emplace_back(name);
    }
    return result;
  }();
  return loaded;
}

void demangleAll(benchmark::State& state, Form form) {
  const std::vector<std::string>& list = names();
  if (list.empty()) {
    state.SkipWithError("no Swift names to demangle");
    return;
  }
  std::size_t demangled = 0, bytes = 0;
  for (auto _ : state) {
    for (const std::string& name : list) {
      std::optional<std::string> text = demangle(name, form);
      benchmark::DoNotOptimize(text);
      demangled += text.has_value();
      bytes += name.size();
    }
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * list.size()));
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
  state.counters["demangled"] = static_cast<double>(demangled) / static_cast<double>(state.iterations());
  state.counters["names"] = static_cast<double>(list.size());
}

void BM_SwiftDemangleSimplified(benchmark::State& state) { demangleAll(state, Form::Simplified); }
void BM_SwiftDemangleFull(benchmark::State& state) { demangleAll(state, Form::Full); }

BENCHMARK(BM_SwiftDemangleSimplified)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SwiftDemangleFull)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
